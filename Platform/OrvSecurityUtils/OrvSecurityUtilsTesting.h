#pragma once
// Seams that let tests reach code a host never calls directly. Not installed.
#include <string_view>

struct evp_pkey_st;  // OpenSSL's EVP_PKEY, kept out of the headers a host sees

namespace orv::detail {
// The verifier's signature step alone: the algorithm's key check and the primitive over message as the
// signing input, with no header, certificate or encoding around it. Published test vectors come as bare
// keys and messages; this lets them reach the same code that judges a JWS. Tests only.
bool verifyJwsSignatureForTesting(std::string_view algorithm, evp_pkey_st* key, std::string_view message,
                                  std::string_view signature);
}  // namespace orv::detail
