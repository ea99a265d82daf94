#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <array>
#include <stdexcept>

#include "Sockets.h"
#include "support/Certificates.h"

namespace soak {
namespace {

template <typename Handle>
using Owner = std::unique_ptr<Handle, void (*)(Handle*)>;

void require(bool done, const char* what) {
  if (!done) throw std::runtime_error(what);
}

// A session over memory: what it wants to send is given to the TCP line below it as there is room.
class TlsLine : public Line {
 public:
  TlsLine(SSL_CTX* context, drovane::Descriptor its_socket)
      : tcp(std::move(its_socket)), session(SSL_new(context), SSL_free) {
    require(session != nullptr, "SSL_new");
    SSL_set_bio(session.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
    SSL_set_accept_state(session.get());
  }

  // Not before what was sealed earlier has left, so that the session keeps nothing back.
  std::size_t send(std::string_view bytes) override {
    if (SSL_is_init_finished(session.get()) == 0 || !passOn()) return 0;
    ERR_clear_error();
    const int sent = SSL_write(session.get(), bytes.data(), static_cast<int>(bytes.size()));
    passOn();
    return sent > 0 ? static_cast<std::size_t>(sent) : 0;
  }

  bool receive(std::string& bytes) override {
    std::string sealed;
    const bool connected = tcp.receive(sealed);
    const int length = static_cast<int>(sealed.size());
    if (length > 0)
      require(BIO_write(SSL_get_rbio(session.get()), sealed.data(), length) == length, "BIO_write");
    const bool sound = unseal(bytes);
    passOn();
    return connected && sound;
  }

  bool endSending() override {
    if ((SSL_get_shutdown(session.get()) & SSL_SENT_SHUTDOWN) == 0) SSL_shutdown(session.get());
    return passOn() && tcp.endSending();
  }
  void breakOff() override { tcp.breakOff(); }

 private:
  bool unseal(std::string& bytes) {
    std::array<char, 16384> block;
    while (true) {
      ERR_clear_error();
      const int count = SSL_read(session.get(), block.data(), static_cast<int>(block.size()));
      if (count <= 0) return SSL_get_error(session.get(), count) == SSL_ERROR_WANT_READ;
      bytes.append(block.data(), static_cast<std::size_t>(count));
    }
  }

  // True when nothing is left to pass on.
  bool passOn() {
    BIO* const out = SSL_get_wbio(session.get());
    std::string fresh(BIO_ctrl_pending(out), '\0');
    if (!fresh.empty())
      require(BIO_read(out, fresh.data(), static_cast<int>(fresh.size())) ==
                  static_cast<int>(fresh.size()),
              "BIO_read");
    sealed_out += fresh;
    sealed_out.erase(0, sealed_out.empty() ? 0 : tcp.send(sealed_out));
    return sealed_out.empty();
  }

  TcpLine tcp;
  Owner<SSL> session;
  std::string sealed_out;
};

// As old as the devices are: TLS 1.0 and nothing else.
class TlsPlace : public Place {
 public:
  TlsPlace() : context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free) {
    static const Certificate kCertificate = selfSigned();
    require(context != nullptr, "SSL_CTX_new");
    SSL_CTX_set_security_level(context.get(), 0);
    require(SSL_CTX_set_min_proto_version(context.get(), TLS1_VERSION) == 1 &&
                SSL_CTX_set_max_proto_version(context.get(), TLS1_VERSION) == 1 &&
                SSL_CTX_use_certificate(context.get(), kCertificate.certificate.get()) == 1 &&
                SSL_CTX_use_PrivateKey(context.get(), kCertificate.key.get()) == 1,
            "SSL_CTX");
  }
  std::string commands() const override { return door.commands("ssl") + "  accept_self_cert on\n"; }
  std::unique_ptr<Line> welcome() override {
    drovane::Descriptor taken = door.take();
    return taken ? std::make_unique<TlsLine>(context.get(), std::move(taken)) : nullptr;
  }
  void shut() override { door.shut(); }
  void open() override { door.open(); }

 private:
  TcpDoor door;
  Owner<SSL_CTX> context;
};

}  // namespace

std::unique_ptr<Place> makeTlsPlace() { return std::make_unique<TlsPlace>(); }

}  // namespace soak
