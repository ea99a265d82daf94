// The link over TLS in the real program, on a machine whose policy forbids what old devices speak.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <future>

#include "RunningProgram.h"
#include "support/PeerTls.h"

namespace {

const char kPolicy[] =
    "openssl_conf = policy\n"
    "[policy]\n"
    "ssl_conf = for_tls\n"
    "[for_tls]\n"
    "system_default = strict\n"
    "[strict]\n"
    "MinProtocol = TLSv1.2\n"
    "CipherString = DEFAULT:@SECLEVEL=2\n";

// Sets a variable of this process's environment, which children inherit, for the life of a scope.
class Variable {
 public:
  Variable(const char* its_name, const std::string& value) : name(its_name) {
    EXPECT_EQ(::setenv(name, value.c_str(), 1), 0);
  }
  ~Variable() { ::unsetenv(name); }
  Variable(const Variable&) = delete;
  Variable& operator=(const Variable&) = delete;

 private:
  const char* const name;
};

TEST(TlsProgram, PolicyOfTheMachineDoesNotKeepAnOldDeviceOut) {
  Program program;
  const Variable policy("OPENSSL_CONF", program.folder.write("openssl.cnf", kPolicy));
  // The policy is one that is heeded: the system's own client gets nowhere with it.
  TlsPeer peer(selfSigned());
  auto refused = std::async(std::launch::async, [&] { return peer.accept(); });
  const std::string address = "127.0.0.1:" + std::to_string(peer.port());
  EXPECT_NE(runToEnd({"openssl", "s_client", "-tls1", "-connect", address}).status, 0);
  EXPECT_FALSE(refused.get());

  auto taken = std::async(std::launch::async, [&] { return peer.accept(); });
  program.startReady("log level 4\nrovik 5 net generic_net\n  mode ssl\n  host 127.0.0.1\n  port " +
                     std::to_string(peer.port()) + "\n  accept_self_cert on\n  open\n");
  EXPECT_TRUE(taken.get());
  peer.send("a line\n");
  EXPECT_TRUE(program.running().waitForErrors("MM_DATA 5_0_0 = {a line\\n}\n"));
  program.running().signal(SIGTERM);
  EXPECT_EQ(program.running().wait(), 0);
}

}  // namespace
