// Certificates that somebody vouches for. Trust is what lies in /etc/ssl/certs, so each test opens
// its link in a child process that has a folder of its own there.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <optional>
#include <string>

#include "TlsNetTest.h"
#include "framework/Descriptor.h"

namespace {

using drovane::Descriptor;

constexpr int kNotPermitted = 77;

bool writeFile(const std::string& path, const std::string& content) {
  std::ofstream file(path);
  file << content;
  return static_cast<bool>(file.flush());
}

// One user or group of a new user namespace: 0 there is the caller here.
std::string mapOf(unsigned int caller) { return "0 " + std::to_string(caller) + " 1\n"; }

// Mounts of this process's own; without root in a user namespace, which owns the files it makes.
bool leaveMounts() {
  if (unshare(CLONE_NEWNS) == 0) return true;
  const std::string user = mapOf(getuid());
  const std::string group = mapOf(getgid());
  return unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 && writeFile("/proc/self/setgroups", "deny") &&
         writeFile("/proc/self/uid_map", user) && writeFile("/proc/self/gid_map", group);
}

bool trustOnly(const Certificate& trusted) {
  return leaveMounts() && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("none", "/etc/ssl/certs", "tmpfs", 0, nullptr) == 0 &&
         writeFile("/etc/ssl/certs/" + trusted.trustFileName(), trusted.pem());
}

class TlsTrust : public TlsNetTest {
 protected:
  Certificate issuedByCa(const std::string& name, bool expired = false) const {
    CertificateWish wish;
    wish.common_name = name;
    wish.issuer = &ca;
    wish.expired = expired;
    return makeCertificate(wish);
  }

  // What opening a link to this server logs where `ca` is trusted, in a line each: level, text.
  // Nothing when this process may not have mounts of its own.
  std::optional<std::string> openTrusting(TlsPeer& server) {
    std::array<int, 2> ends{};
    EXPECT_EQ(0, pipe2(ends.data(), O_CLOEXEC));
    const Descriptor from_child(ends[0]);
    Descriptor to_parent(ends[1]);
    pointAt(server.port());
    const pid_t child = fork();
    if (child == 0) _exit(trustOnly(ca) ? openAndTell(to_parent.get()) : kNotPermitted);
    to_parent.reset();
    int status = 0;
    std::string told;
    // A child that may not do it does not connect.
    if (readFrom(from_child.get()) == "trusting") server.accept();
    told = readFrom(from_child.get());
    EXPECT_EQ(child, waitpid(child, &status, 0));
    if (WIFEXITED(status) && WEXITSTATUS(status) == kNotPermitted) return std::nullopt;
    EXPECT_EQ(0, status);
    return told;
  }

  // Opens with and without accept_self_cert and expects the same end of what is logged.
  void expectLog(TlsPeer& server, const std::string& subject, const std::string& end) {
    const auto told = openTrusting(server);
    if (!told) GTEST_SKIP() << "no mounts of one's own for this process: not root, no namespaces";
    EXPECT_EQ(
        "4 opening SSL socket\n4 opening TCP socket\n4 SSL session created successfully!\n"
        "4 Certificate retrieved from server: /CN=" +
            subject + "\n" + end,
        *told);
  }

  const Certificate ca = authority("Home Authority");

 private:
  // In the child. 0 when all was told.
  int openAndTell(int to_parent) {
    if (!tell(to_parent, "trusting")) return 1;
    net->command({"open"});
    std::string told;
    for (const CapturedLine& line : newLines())
      told += std::to_string(line.level) + ' ' + line.text + '\n';
    return tell(to_parent, told) ? 0 : 1;
  }

  static bool tell(int to, const std::string& text) {
    return ::write(to, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  }

  // The next thing told; empty at the end.
  static std::string readFrom(int descriptor) {
    std::array<char, 4096> bytes{};
    const ssize_t count = ::read(descriptor, bytes.data(), bytes.size());
    return {bytes.data(), static_cast<std::size_t>(count < 0 ? 0 : count)};
  }
};

TEST_F(TlsTrust, CertificateInOrderIsVerified) {
  TlsPeer server(issuedByCa("device"));
  expectLog(server, "device", "4 Verify ok: ok\n");
}

TEST_F(TlsTrust, CertificateInOrderIsVerifiedWhateverElseWouldBeAccepted) {
  net->command({"accept_self_cert", "on"});
  TlsPeer server(issuedByCa("device"));
  expectLog(server, "device", "4 Verify ok: ok\n");
}

TEST_F(TlsTrust, NameOfTheHostIsNotCompared) {
  TlsPeer server(issuedByCa("elsewhere.example.org"));
  expectLog(server, "elsewhere.example.org", "4 Verify ok: ok\n");
}

TEST_F(TlsTrust, ExpiredCertificateIsRefused) {
  TlsPeer server(issuedByCa("device", true));
  expectLog(server, "device", "4 Verify failed: certificate has expired\n2 open failed\n");
}

TEST_F(TlsTrust, ExpiredCertificateIsAcceptedLikeASelfSignedOne) {
  net->command({"accept_self_cert", "on"});
  TlsPeer server(issuedByCa("device", true));
  expectLog(server, "device", "4 Verify ok (accepting self certs!): certificate has expired\n");
}

TEST_F(TlsTrust, CertificateOfAnotherIssuerIsRefused) {
  const Certificate other = authority("Other Authority");
  CertificateWish wish;
  wish.issuer = &other;
  TlsPeer server(makeCertificate(wish));
  expectLog(server, "device",
            "4 Verify failed: unable to get local issuer certificate\n2 open failed\n");
}

}  // namespace
