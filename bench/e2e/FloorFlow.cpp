// The floor of the end-to-end flows: the same GETs as the library, in the same order (answers, then
// the public key), over one libcurl multi handle, and the same RS256 signatures checked with OpenSSL
// on two threads with the key of the certificate fetched. Nothing else: no parsing of the answers, no
// certificate checks, no queues. What the library costs beyond this is its own.
#include <curl/curl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <atomic>
#include <cctype>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>

#include "E2ECommon.h"

namespace {

using orv::e2e::Options;

// curl 7.88 can leave a transfer it has just let out of its pending list with no timer armed (seen
// after an HTTP/2 GOAWAY, when refused streams wait for the next connection): it then runs only once
// the caller polls again. A long wait turns that into a stall of the whole wait, so the floor never
// sleeps longer than this while transfers are out.
constexpr int kPollCapMilliseconds = 10;

std::string base64Url(std::string_view bytes) {
  static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3) {
    const unsigned v =
        unsigned(std::uint8_t(bytes[i])) << 16 | unsigned(std::uint8_t(bytes[i + 1])) << 8 | std::uint8_t(bytes[i + 2]);
    out += kAlphabet[v >> 18];
    out += kAlphabet[(v >> 12) & 63];
    out += kAlphabet[(v >> 6) & 63];
    out += kAlphabet[v & 63];
  }
  if (i + 1 == bytes.size()) {
    const unsigned v = unsigned(std::uint8_t(bytes[i])) << 16;
    out += kAlphabet[v >> 18];
    out += kAlphabet[(v >> 12) & 63];
  } else if (i + 2 == bytes.size()) {
    const unsigned v = unsigned(std::uint8_t(bytes[i])) << 16 | unsigned(std::uint8_t(bytes[i + 1])) << 8;
    out += kAlphabet[v >> 18];
    out += kAlphabet[(v >> 12) & 63];
    out += kAlphabet[(v >> 6) & 63];
  }
  return out;
}

std::optional<std::string> fromBase64Url(std::string_view text) {
  std::string out;
  unsigned buffer = 0;
  int bits = 0;
  for (const char c : text) {
    int v;
    if (c >= 'A' && c <= 'Z') {
      v = c - 'A';
    } else if (c >= 'a' && c <= 'z') {
      v = c - 'a' + 26;
    } else if (c >= '0' && c <= '9') {
      v = c - '0' + 52;
    } else if (c == '-') {
      v = 62;
    } else if (c == '_') {
      v = 63;
    } else {
      return std::nullopt;
    }
    buffer = (buffer << 6) | unsigned(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out += char((buffer >> bits) & 0xff);
    }
  }
  return out;
}

struct Answer {
  std::string body;
  std::string signature;
  long status = 0;
  long httpVersion = 0;
};

struct Transfer {
  CURL* easy = nullptr;
  Answer answer;
  bool retried = false;
};

std::size_t onBody(char* data, std::size_t size, std::size_t count, void* user) {
  static_cast<Answer*>(user)->body.append(data, size * count);
  return size * count;
}

std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* user) {
  const std::string_view line(data, size * count);
  constexpr std::string_view kName = "varnel-signature:";
  if (line.size() > kName.size()) {
    bool matches = true;
    for (std::size_t i = 0; i < kName.size() && matches; ++i) matches = char(std::tolower(line[i])) == kName[i];
    if (matches) {
      auto value = line.substr(kName.size());
      while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) value.remove_prefix(1);
      while (!value.empty() && (value.back() == '\r' || value.back() == '\n' || value.back() == ' ')) value.remove_suffix(1);
      static_cast<Answer*>(user)->signature = std::string(value);
    }
  }
  return size * count;
}

// One multi handle is one connection cache: kept across flows it is a warm client, made per flow a
// cold one. Over HTTP/2 everything rides one connection (streams capped at curl's default of 100, as
// the library caps them); over HTTP/1.1 the host limit is the library's default of six connections.
class Client {
 public:
  explicit Client(const Options& options) : options_(options), multi_(curl_multi_init()) {
    curl_multi_setopt(multi_, CURLMOPT_PIPELINING, long(CURLPIPE_MULTIPLEX));
    curl_multi_setopt(multi_, CURLMOPT_MAX_CONCURRENT_STREAMS, 100L);
    curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, options.protocol == "h2" ? 1L : 6L);
    curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, 8L);
  }
  ~Client() { curl_multi_cleanup(multi_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Every path, false when any did not come back 200 over the expected protocol. curl is never handed
  // more transfers than can go out at once: a transfer that finds no usable connection waits in curl's
  // pending list, which lets out one transfer per finished one, so a burst would trickle. Over HTTP/2 a
  // single transfer goes first on a new connection, and once it has shown the connection multiplexes
  // the rest follow, 100 in flight; over HTTP/1.1, six at a time on up to six connections.
  bool get(const std::vector<std::string>& paths, std::vector<Answer>& answers) {
    const bool h2 = options_.protocol == "h2";
    std::vector<Transfer> transfers(paths.size());
    std::size_t next = 0, done = 0, inFlight = 0;
    bool ok = true;
    const auto admit = [&] {
      const std::size_t limit = !h2 ? 6 : multiplexing_ ? 100 : 1;
      for (; next < transfers.size() && inFlight < limit; ++next, ++inFlight) {
        CURL* easy = curl_easy_init();
        transfers[next].easy = easy;
        const std::string url = "https://" + options_.host + paths[next];
        curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
        curl_easy_setopt(easy, CURLOPT_CAINFO, options_.caFile.c_str());
        curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, long(h2 ? CURL_HTTP_VERSION_2TLS : CURL_HTTP_VERSION_1_1));
        curl_easy_setopt(easy, CURLOPT_PIPEWAIT, h2 ? 1L : 0L);
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &onBody);
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfers[next].answer);
        curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &onHeader);
        curl_easy_setopt(easy, CURLOPT_HEADERDATA, &transfers[next].answer);
        curl_easy_setopt(easy, CURLOPT_PRIVATE, static_cast<void*>(&transfers[next]));
        curl_multi_add_handle(multi_, easy);
      }
    };
    admit();
    while (done < transfers.size()) {
      int running = 0;
      curl_multi_perform(multi_, &running);
      int queued = 0;
      bool finished = false;
      while (CURLMsg* message = curl_multi_info_read(multi_, &queued)) {
        if (message->msg != CURLMSG_DONE) continue;
        // A GET that met a connection the server was closing (nginx ends one after 1,000 requests) is
        // sent once more on a new one, as the library does; the floor must not fail where it succeeds.
        void* user = nullptr;
        curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &user);
        auto* transfer = static_cast<Transfer*>(user);
        if (message->data.result != CURLE_OK && transfer && !transfer->retried) {
          CURL* easy = message->easy_handle;
          transfer->retried = true;
          transfer->answer = Answer{};
          curl_multi_remove_handle(multi_, easy);
          curl_easy_setopt(easy, CURLOPT_FRESH_CONNECT, 1L);
          curl_multi_add_handle(multi_, easy);
          continue;
        }
        ++done;
        --inFlight;
        finished = true;
        if (message->data.result != CURLE_OK) ok = false;
        long version = 0;
        curl_easy_getinfo(message->easy_handle, CURLINFO_HTTP_VERSION, &version);
        multiplexing_ = message->data.result == CURLE_OK && version == CURL_HTTP_VERSION_2_0;
      }
      if (finished) admit();
      if (done < transfers.size()) curl_multi_poll(multi_, nullptr, 0, kPollCapMilliseconds, nullptr);
    }
    const long expectedVersion = h2 ? CURL_HTTP_VERSION_2_0 : CURL_HTTP_VERSION_1_1;
    answers.clear();
    answers.reserve(transfers.size());
    for (auto& transfer : transfers) {
      long connects = 0;
      curl_easy_getinfo(transfer.easy, CURLINFO_NUM_CONNECTS, &connects);
      connections += connects;
      curl_easy_getinfo(transfer.easy, CURLINFO_RESPONSE_CODE, &transfer.answer.status);
      curl_easy_getinfo(transfer.easy, CURLINFO_HTTP_VERSION, &transfer.answer.httpVersion);
      if (transfer.answer.status != 200 || transfer.answer.httpVersion != expectedVersion) ok = false;
      curl_multi_remove_handle(multi_, transfer.easy);
      curl_easy_cleanup(transfer.easy);
      answers.push_back(std::move(transfer.answer));
    }
    return ok;
  }

  long connections = 0;

 private:
  const Options& options_;
  CURLM* multi_;
  // Whether the last answer came over a connection that multiplexes, so that more may share it.
  bool multiplexing_ = false;
};

struct PkeyDeleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyDeleter>;

// The key of the certificate in {"certificate": "<PEM>"}. Every flow fetches it; it is parsed again
// only when its bytes change, as decoding a certificate costs OpenSSL 3.0 several signature checks and
// a bare client need not repeat that for the same bytes.
class KeyOfCertificate {
 public:
  EVP_PKEY* operator()(const std::string& body) {
    boost::system::error_code ec;
    const auto value = boost::json::parse(body, ec);
    const auto* object = ec ? nullptr : value.if_object();
    const auto* pem = object ? object->if_contains("certificate") : nullptr;
    if (!pem || !pem->is_string()) return nullptr;
    const auto& text = pem->get_string();
    if (key_ && pem_ == text) return key_.get();
    key_.reset();
    BIO* bio = BIO_new_mem_buf(text.data(), int(text.size()));
    X509* certificate = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
    BIO_free(bio);
    if (!certificate) return nullptr;
    key_.reset(X509_get_pubkey(certificate));
    X509_free(certificate);
    pem_ = text;
    return key_.get();
  }

 private:
  std::string pem_;
  Pkey key_;
};

// base64url(header) "." base64url(signature) over base64url(header) "." base64url(body), RS256.
bool verify(EVP_PKEY* key, const Answer& answer) {
  const auto dot = answer.signature.find('.');
  if (dot == std::string::npos) return false;
  const auto signature = fromBase64Url(std::string_view(answer.signature).substr(dot + 1));
  if (!signature) return false;
  const std::string signingInput = answer.signature.substr(0, dot) + "." + base64Url(answer.body);
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  const bool ok = EVP_DigestVerifyInit_ex(context, nullptr, "SHA256", nullptr, nullptr, key, nullptr) == 1 &&
                  EVP_DigestVerify(context, reinterpret_cast<const unsigned char*>(signature->data()), signature->size(),
                                   reinterpret_cast<const unsigned char*>(signingInput.data()), signingInput.size()) == 1;
  EVP_MD_CTX_free(context);
  return ok;
}

// A second thread kept for the whole run, so that no flow pays for starting one.
class Helper {
 public:
  Helper() : thread_([this] { loop(); }) {}
  ~Helper() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    wake_.notify_one();
    thread_.join();
  }
  void start(std::function<void()> job) {
    {
      std::lock_guard lock(mutex_);
      job_ = std::move(job);
    }
    wake_.notify_one();
  }
  void wait() {
    std::unique_lock lock(mutex_);
    finished_.wait(lock, [&] { return !job_; });
  }

 private:
  void loop() {
    std::unique_lock lock(mutex_);
    for (;;) {
      wake_.wait(lock, [&] { return stopping_ || job_; });
      if (stopping_) return;
      lock.unlock();
      job_();
      lock.lock();
      job_ = nullptr;
      finished_.notify_one();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_, finished_;
  std::function<void()> job_;
  bool stopping_ = false;
  std::thread thread_;
};

bool verifyAll(Helper& helper, EVP_PKEY* key, const std::vector<Answer>& answers) {
  if (answers.size() == 1) return verify(key, answers[0]);
  std::atomic<bool> ok{true};
  helper.start([&] {
    for (std::size_t i = 1; i < answers.size(); i += 2)
      if (!verify(key, answers[i])) ok = false;
  });
  for (std::size_t i = 0; i < answers.size(); i += 2)
    if (!verify(key, answers[i])) ok = false;
  helper.wait();
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  std::string error;
  const auto parsed = Options::parse(argc, argv, &error);
  if (!parsed) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 64;
  }
  const Options& options = *parsed;
  curl_global_init(CURL_GLOBAL_DEFAULT);

  std::vector<std::string> answerPaths;
  if (options.settings()) {
    for (int i = 0; i < options.stores; ++i)
      answerPaths.push_back("/ads/root/url/" + base64Url(orv::e2e::storeURL(i, true)) + "/product/kaleth/os/ios");
  } else {
    answerPaths.push_back("/ads/root/domain/" + orv::e2e::domainForStores(options.stores) + "/");
  }
  const std::vector<std::string> keyPath{"/ads/root/publickey"};

  Helper helper;
  KeyOfCertificate keyOf;
  long connections = 0;
  std::unique_ptr<Client> client;
  if (!options.fresh()) client = std::make_unique<Client>(options);
  std::vector<Answer> answers, key;
  const auto work = [&] {
    if (options.fresh()) client = std::make_unique<Client>(options);
    if (!client->get(answerPaths, answers) || !client->get(keyPath, key)) return false;
    EVP_PKEY* pkey = keyOf(key[0].body);
    return pkey && verifyAll(helper, pkey, answers);
  };
  std::optional<Helper> network;
  if (options.handOff) network.emplace();
  const std::function<bool()> flow = [&] {
    if (!network) return work();
    bool ok = false;
    network->start([&] { ok = work(); });
    network->wait();
    return ok;
  };
  bool warmedUp = false;
  const auto after = [&] {
    // The warm-up flow's connections are not the measured flows'.
    if (warmedUp) connections += client->connections;
    client->connections = 0;
    warmedUp = true;
    if (options.fresh()) client.reset();
  };
  const auto measurement = orv::e2e::measure(options, flow, after, &error);
  if (!measurement) {
    std::fprintf(stderr, "floor: %s\n", error.c_str());
    return 1;
  }
  const double flows = double(measurement->wallMilliseconds.size());
  orv::e2e::printReport(options.handOff ? "floor-hand-off" : "floor", options, *measurement,
                        {{"curl_connections_opened", connections}, {"curl_connections_per_flow", double(connections) / flows}});
  client.reset();
  curl_global_cleanup();
  return 0;
}
