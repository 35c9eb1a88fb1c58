#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "OrvSDKStringUtils.h"
#include "SecurityTestMaterial.h"

namespace orv::test {
namespace {

TEST(OrvCertificateTest, AcceptsOnePEMBlockOrBase64DERAndNothingElse) {
  const auto& m = securityMaterial();
  const std::string pem = m.rsaLeaf->pemString();
  const std::string der = m.rsaLeaf->derData(), body = OrvBase64Encode(m.rsaLeaf->derData());
  const auto service = OrvSecurityUtilsService::create();
  for (const std::string& content :
       {pem, "\n  " + pem + "\n\n", body, body.substr(0, 64) + "\r\n" + body.substr(64) + "\r\n", " " + body + "\t"}) {
    const auto certificate = service->createCertificateFromCertificateContent(content);
    ASSERT_TRUE(certificate) << content;
    EXPECT_EQ(certificate->derData(), der);
  }
  // The same text again is the same parse; other text is parsed on its own.
  EXPECT_EQ(service->createCertificateFromCertificateContent(pem), service->createCertificateFromCertificateContent(pem));
  EXPECT_NE(service->createCertificateFromCertificateContent(m.p256Leaf->pemString())->derData(), der);
  // Text past 64 KiB (here padding) is parsed each time rather than kept for the process.
  const std::string padded = pem + std::string(70 * 1024, '\n');
  const auto once = service->createCertificateFromCertificateContent(padded);
  ASSERT_TRUE(once);
  EXPECT_EQ(once->derData(), der);
  EXPECT_NE(once, service->createCertificateFromCertificateContent(padded));
  const auto certificate = OrvCertificate::certificateWithDER(der);
  ASSERT_TRUE(certificate);
  EXPECT_EQ(certificate->subjectOrganization(), "Varnel Signing");
  EXPECT_EQ(certificate->subjectCommonName(), "discovery signing");
  EXPECT_EQ(m.issuerByCommonName->subjectOrganization(), std::nullopt);
  unsigned char digest[32];
  unsigned int length = 0;
  ASSERT_EQ(EVP_Digest(der.data(), der.size(), digest, &length, EVP_sha256(), nullptr), 1);
  EXPECT_EQ(certificate->sha256Thumbprint(), std::string(reinterpret_cast<const char*>(digest), length));

  // Anything else is refused.
  std::string urlAlphabet = body;
  for (char& c : urlAlphabet) c = c == '+' ? '-' : c == '/' ? '_' : c;
  const std::string contents[] = {
      "",
      "not a certificate",
      pem + "garbage",
      pem + "\n-----BEGIN CERTIFICATE-----",
      "garbage\n" + pem,
      pem + pem,
      m.rsaKey.privateKeyPEM(),
      "-----BEGIN CERTIFICATE-----\n-----END CERTIFICATE-----",
      "-----BEGIN CERTIFICATE-----",
      body.substr(0, body.size() - 4),              // truncated DER
      OrvBase64Encode(m.rsaLeaf->derData() + "x"),  // DER followed by a stray byte
      "=" + body,
      // The URL-safe alphabet is not base64's. Which of its two characters a random key's encoding
      // meets first varies, so each also comes on its own.
      urlAlphabet == body ? body + "-" : urlAlphabet,
      "-" + body,
      "_" + body,
      "AAAA",
  };
  for (const auto& content : contents) {
    EXPECT_EQ(OrvCertificate::certificateWithContent(content), nullptr) << content;
  }
  // A signature whose unused bits are set: the parser takes it, but the certificate has two encodings,
  // and so two thumbprints.
  std::string loose = m.p256Leaf->derData();
  // The signature's BIT STRING is the third element of the outer SEQUENCE, found by walking the DER
  // (a search for its header could stop inside the random signature bytes).
  const auto header = [&](std::size_t at) {  // {header size, content length} of the element at `at`
    const std::size_t first = std::uint8_t(loose[at + 1]);
    if (first < 0x80) return std::pair<std::size_t, std::size_t>(2, first);
    std::size_t length = 0;
    for (std::size_t i = 0; i < (first & 0x7F); ++i) length = length << 8 | std::uint8_t(loose[at + 2 + i]);
    return std::pair<std::size_t, std::size_t>(2 + (first & 0x7F), length);
  };
  const std::size_t tbs = header(0).first, algorithm = tbs + header(tbs).first + header(tbs).second;
  const std::size_t bitString = algorithm + header(algorithm).first + header(algorithm).second;
  ASSERT_EQ(loose[bitString], 0x03);
  ASSERT_EQ(bitString + 2 + header(bitString).second, loose.size());
  loose[bitString + 2] = 7;
  loose.back() = static_cast<char>(loose.back() | 1);
  EXPECT_EQ(OrvCertificate::certificateWithDER(loose), nullptr);
  EXPECT_EQ(OrvCertificate::certificateWithDER(""), nullptr);
  EXPECT_EQ(OrvCertificate::certificateWithDER("\x30\x03\x02\x01\x01"), nullptr);
}

}  // namespace
}  // namespace orv::test
