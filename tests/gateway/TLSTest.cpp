#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <csignal>
#include <filesystem>

#include "gateway/http/TLS.h"
#include "tests/gateway/GatewayFixture.h"

namespace corvid::fleet {
namespace {

// A certificate for itself and its key, as PEM files of a folder.
struct Identity {
  Identity(const ScratchFolder& folder, const std::string& name)
      : certificate(folder.path(name + ".pem")), key(folder.path(name + ".key")) {
    EVP_PKEY* const made = EVP_EC_gen("P-256");
    X509* const one = X509_new();
    ASN1_INTEGER_set(X509_get_serialNumber(one), 1);
    X509_gmtime_adj(X509_getm_notBefore(one), 0);
    X509_gmtime_adj(X509_getm_notAfter(one), 3600);
    X509_set_pubkey(one, made);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(one), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
    X509_set_issuer_name(one, X509_get_subject_name(one));
    X509_sign(one, made, EVP_sha256());
    write(certificate, [&](BIO* out) { PEM_write_bio_X509(out, one); });
    write(key, [&](BIO* out) {
      PEM_write_bio_PrivateKey(out, made, nullptr, nullptr, 0, nullptr, nullptr);
    });
    X509_free(one);
    EVP_PKEY_free(made);
  }
  template <class Write>
  static void write(const std::string& path, Write what) {
    BIO* const out = BIO_new_file(path.c_str(), "w");
    what(out);
    BIO_free(out);
  }

  const std::string certificate;
  const std::string key;
};

// A client over TLS that trusts anybody; blocks.
class TLSCaller {
 public:
  explicit TLSCaller(std::uint16_t port)
      : _context(SSL_CTX_new(TLS_client_method())),
        _connection(BIO_new_connect(("127.0.0.1:" + std::to_string(port)).c_str())),
        _ssl(SSL_new(_context)) {
    BIO_do_connect(_connection);
    timeval limit{20, 0};
    setsockopt(static_cast<int>(BIO_get_fd(_connection, nullptr)), SOL_SOCKET, SO_RCVTIMEO, &limit,
               sizeof limit);
    SSL_set_bio(_ssl, _connection, _connection);
    _isConnected = SSL_connect(_ssl) == 1;
  }
  ~TLSCaller() {
    SSL_free(_ssl);
    SSL_CTX_free(_context);
  }
  TLSCaller(const TLSCaller&) = delete;
  TLSCaller& operator=(const TLSCaller&) = delete;

  bool isConnected() const { return _isConnected; }
  std::string peerName() const {
    char name[64] = "";
    X509* const peer = SSL_get1_peer_certificate(_ssl);
    if (peer) X509_NAME_get_text_by_NID(X509_get_subject_name(peer), NID_commonName, name, 64);
    X509_free(peer);
    return name;
  }
  std::string ask(const std::string& bytes) {
    std::string answer(1000, '\0');
    if (SSL_write(_ssl, bytes.data(), static_cast<int>(bytes.size())) <= 0) return {};
    const int count = SSL_read(_ssl, answer.data(), static_cast<int>(answer.size()));
    return answer.substr(0, static_cast<std::size_t>(std::max(count, 0)));
  }

 private:
  SSL_CTX* _context;
  BIO* _connection;
  SSL* _ssl;
  bool _isConnected = false;
};

class TLSTest : public GatewayTest {
 protected:
  TLSTest() {
    std::signal(SIGPIPE, SIG_IGN);
    options.certificate = first.certificate;
    options.key = first.key;
  }
  void startWithTLS() {
    inForce.tls = readTLS(options.certificate, options.key).value();
    start();
  }

  const Identity first{folder, "first"};
  const Identity second{folder, "second"};
};

TEST_F(TLSTest, TakesPostsOverOneConnection) {
  startWithTLS();
  TLSCaller caller(port);
  ASSERT_TRUE(caller.isConnected());
  EXPECT_TRUE(caller.ask(request("/v1/events", onePost)).starts_with("HTTP/1.1 200"));
  EXPECT_TRUE(caller.ask(request("/v1/events", "{}")).starts_with("HTTP/1.1 400"));
}

TEST_F(TLSTest, TakesABodyOfManyRecords) {
  startWithTLS();
  TLSCaller caller(port);
  const std::string body = R"({"events":[]})" + std::string(1'000'000, ' ');
  EXPECT_TRUE(caller.ask(request("/v1/events", body)).starts_with("HTTP/1.1 200"));
  EXPECT_TRUE(log.messages().at(0).body == body);
}

TEST_F(TLSTest, MonitorsAskInTheClear) {
  startWithTLS();
  EXPECT_EQ(get(gateway->monitorPort(), "/healthz")->status, 200);
}

TEST_F(TLSTest, AReloadShowsAnotherCertificateToThoseWhoComeThen) {
  startWithTLS();
  TLSCaller before(port);
  EXPECT_EQ(before.peerName(), "first");
  options.certificate = second.certificate;
  options.key = second.key;
  gateway->setInForce(readInForce(options).value());
  EXPECT_TRUE(waitUntil([&] { return TLSCaller(port).peerName() == "second"; }));
  EXPECT_TRUE(before.ask(request("/v1/events", onePost)).starts_with("HTTP/1.1 200"));
}

TEST_F(TLSTest, AHandshakeThatNeverComesRunsOutOfTime) {
  inForce.settings.headTime = std::chrono::milliseconds(100);
  startWithTLS();
  Caller silent(port);
  EXPECT_TRUE(silent.isClosed());
}

TEST_F(TLSTest, WhatIsNoHandshakeIsClosed) {
  startWithTLS();
  Caller caller(port);
  caller.send(request("/v1/events", onePost));
  EXPECT_TRUE(caller.isClosed());
  EXPECT_TRUE(log.messages().empty());
}

TEST_F(TLSTest, FilesThatDoNotFitAreNamed) {
  EXPECT_EQ(readTLS(folder.path("none"), first.key).failure().message.find(folder.path("none")),
            0u);
  EXPECT_EQ(readTLS(first.certificate, second.key).failure().message.find(second.key), 0u);
  EXPECT_TRUE(readTLS(second.certificate, second.key));
}

}  // namespace
}  // namespace corvid::fleet
