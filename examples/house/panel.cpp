// A simulated alarm panel on a loopback port, of an age when TLS 1.0 was the newest there was. It
// prints which doors are opened and closed, and can be armed.
#include <openssl/err.h>
#include <openssl/rsa.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <array>
#include <random>
#include <stdexcept>

#include "Simulator.h"

namespace {

constexpr const char* kHelp =
    "Usage: panel [--port N] [--interval SECONDS]\n"
    "A simulated alarm panel on 127.0.0.1, TCP port N (default 7002; 0 takes any free port), that\n"
    "speaks TLS 1.0 and nothing newer, with a certificate it has signed itself. Each interval\n"
    "(default 5 seconds) a door is opened or closed, and every client gets a line such as\n"
    "DOOR2=OPEN, and ALARM=DOOR2 behind it while the panel is armed. A client may send ARM, "
    "DISARM\n"
    "or STATE, which is answered with STATE=ARMED or STATE=DISARMED; any other line with ERR=?.\n"
    "\n"
    "Example: panel --port 7102 --interval 0.5\n";

class Panel : public simulator::Device {
 public:
  std::string report(double) override {
    const std::size_t index = any(generator);
    open[index] = !open[index];
    const std::string door = "DOOR" + std::to_string(index + 1);
    if (!open[index]) return door + "=CLOSED\r\n";
    return door + "=OPEN\r\n" + (armed ? "ALARM=" + door + "\r\n" : "");
  }

  std::string answer(const std::string& request) override {
    if (request != "ARM" && request != "DISARM" && request != "STATE") return "ERR=?\r\n";
    if (request != "STATE") armed = request == "ARM";
    return armed ? "STATE=ARMED\r\n" : "STATE=DISARMED\r\n";
  }

 private:
  std::array<bool, 3> open{};
  bool armed = false;
  std::mt19937 generator{std::random_device{}()};
  std::uniform_int_distribution<std::size_t> any{0, open.size() - 1};
};

template <auto release>
struct Release {
  template <typename Handle>
  void operator()(Handle* handle) const {
    release(handle);
  }
};
using Key = std::unique_ptr<EVP_PKEY, Release<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Release<X509_free>>;
using Context = std::unique_ptr<SSL_CTX, Release<SSL_CTX_free>>;
using Session = std::unique_ptr<SSL, Release<SSL_free>>;

// Throws what the library says about a call that has failed.
void succeeded(bool success, const char* call) {
  if (success) return;
  std::array<char, 256> reason{};
  ERR_error_string_n(ERR_get_error(), reason.data(), reason.size());
  throw std::runtime_error(call + std::string(": ") + reason.data());
}

// The panel vouches for itself, for a year from now.
Certificate signedBy(EVP_PKEY* key) {
  constexpr std::array<unsigned char, 12> kName = {"alarm panel"};
  constexpr long kYear = 365L * 24 * 60 * 60;  // seconds
  Certificate certificate(X509_new());
  X509* const it = certificate.get();
  succeeded(it != nullptr && X509_set_version(it, X509_VERSION_3) == 1, "X509_new");
  X509_NAME* const name = X509_get_subject_name(it);
  succeeded(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, kName.data(), -1, -1, 0) == 1 &&
                X509_set_issuer_name(it, name) == 1 && X509_set_pubkey(it, key) == 1 &&
                ASN1_INTEGER_set(X509_get_serialNumber(it), 1) == 1 &&
                X509_gmtime_adj(X509_getm_notBefore(it), 0) != nullptr &&
                X509_gmtime_adj(X509_getm_notAfter(it), kYear) != nullptr,
            "X509");
  succeeded(X509_sign(it, key, EVP_sha256()) > 0, "X509_sign");
  return certificate;
}

// TLS 1.0 and nothing else, which needs security level 0: its signatures are refused above.
Context oldContext() {
  const Key key(EVP_RSA_gen(2048));
  succeeded(key != nullptr, "EVP_RSA_gen");
  const Certificate certificate = signedBy(key.get());
  Context context(SSL_CTX_new(TLS_server_method()));
  succeeded(context != nullptr, "SSL_CTX_new");
  SSL_CTX_set_security_level(context.get(), 0);
  succeeded(SSL_CTX_set_min_proto_version(context.get(), TLS1_VERSION) == 1 &&
                SSL_CTX_set_max_proto_version(context.get(), TLS1_VERSION) == 1 &&
                SSL_CTX_use_certificate(context.get(), certificate.get()) == 1 &&
                SSL_CTX_use_PrivateKey(context.get(), key.get()) == 1,
            "SSL_CTX");
  return context;
}

// Shakes hands with what it receives at first, and tells nothing before that is done.
class TlsConnection : public simulator::Connection {
 public:
  TlsConnection(SSL_CTX* context, simulator::Descriptor its_socket)
      : socket(std::move(its_socket)), session(SSL_new(context)) {
    succeeded(session != nullptr && SSL_set_fd(session.get(), socket.get()) == 1, "SSL_new");
    SSL_set_accept_state(session.get());
  }
  ~TlsConnection() override { SSL_shutdown(session.get()); }
  TlsConnection(const TlsConnection&) = delete;
  TlsConnection& operator=(const TlsConnection&) = delete;

  int descriptor() const override { return socket.get(); }

  // To the last byte: of what the session holds already, no wait for the socket would tell.
  bool receive(std::string& bytes) override {
    std::array<char, 512> block;
    for (;;) {
      ERR_clear_error();
      const int count = SSL_read(session.get(), block.data(), static_cast<int>(block.size()));
      if (count <= 0) return SSL_get_error(session.get(), count) == SSL_ERROR_WANT_READ;
      bytes.append(block.data(), static_cast<std::size_t>(count));
    }
  }

  bool send(const std::string& text) override {
    if (SSL_is_init_finished(session.get()) == 0) return true;
    ERR_clear_error();
    return SSL_write(session.get(), text.data(), static_cast<int>(text.size())) > 0;
  }

 private:
  const simulator::Descriptor socket;
  const Session session;
};

void simulate(const simulator::Options& options) {
  Panel panel;
  const Context context = oldContext();
  const auto welcome = [&context](simulator::Descriptor socket) {
    return std::make_unique<TlsConnection>(context.get(), std::move(socket));
  };
  simulator::Simulation simulation("panel", panel, options.interval(),
                                   simulator::atPort(options.port(), welcome));
  simulation.run();
}

}  // namespace

int main(int argc, char** argv) {
  return simulator::run(kHelp, simulator::Options({{"port", "7002"}, {"interval", "5"}}), argc,
                        argv, simulate);
}
