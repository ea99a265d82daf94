#include "LibraryFaults.h"

#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <stdexcept>

namespace {

std::mutex lock;
LibraryFault* fault = nullptr;

// The function that this one stands before.
template <typename Function>
Function* next(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// True when this call is to fail; errno is then set.
bool fails(const char* name) {
  const int error = LibraryFault::strikes(name);
  if (error != 0) errno = error;
  return error != 0;
}

}  // namespace

LibraryFault::LibraryFault(std::string_view its_name, int its_error, On its_threads, int its_spared)
    : name(its_name), error(its_error), threads(its_threads), spared(its_spared) {
  const std::lock_guard guard(lock);
  if (fault != nullptr) throw std::logic_error("a call is failing already");
  fault = this;
}

LibraryFault::~LibraryFault() {
  const std::lock_guard guard(lock);
  fault = nullptr;
}

bool LibraryFault::happened() const {
  const std::lock_guard guard(lock);
  return struck;
}

int LibraryFault::strikes(std::string_view called) {
  const std::lock_guard guard(lock);
  if (fault == nullptr || fault->struck || fault->name != called) return 0;
  const bool here = fault->maker == std::this_thread::get_id();
  if (here != (fault->threads == On::ThisThread) || fault->spared-- > 0) return 0;
  fault->struck = true;
  return fault->error;
}

extern "C" {

int accept4(int socket, sockaddr* address, socklen_t* length, int flags) {
  return fails("accept4") ? -1 : next(accept4, "accept4")(socket, address, length, flags);
}

int chmod(const char* path, mode_t mode) noexcept {
  return fails("chmod") ? -1 : next(chmod, "chmod")(path, mode);
}

int connect(int socket, const sockaddr* address, socklen_t length) {
  return fails("connect") ? -1 : next(connect, "connect")(socket, address, length);
}

int fstat(int descriptor, struct stat* facts) noexcept {
  return fails("fstat") ? -1 : next(fstat, "fstat")(descriptor, facts);
}

int getsockopt(int socket, int level, int option, void* value, socklen_t* length) noexcept {
  if (fails("getsockopt")) return -1;
  return next(getsockopt, "getsockopt")(socket, level, option, value, length);
}

int listen(int socket, int waiting) noexcept {
  return fails("listen") ? -1 : next(listen, "listen")(socket, waiting);
}

int lstat(const char* path, struct stat* facts) noexcept {
  return fails("lstat") ? -1 : next(lstat, "lstat")(path, facts);
}

int poll(pollfd* watched, nfds_t count, int milliseconds) {
  return fails("poll") ? -1 : next(poll, "poll")(watched, count, milliseconds);
}

ssize_t recv(int socket, void* data, size_t length, int flags) {
  return fails("recv") ? -1 : next(recv, "recv")(socket, data, length, flags);
}

ssize_t send(int socket, const void* data, size_t length, int flags) {
  return fails("send") ? -1 : next(send, "send")(socket, data, length, flags);
}

int setpriority(__priority_which_t which, id_t who, int value) noexcept {
  return fails("setpriority") ? -1 : next(setpriority, "setpriority")(which, who, value);
}

int unlink(const char* path) noexcept {
  return fails("unlink") ? -1 : next(unlink, "unlink")(path);
}

// These return their error.
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) noexcept {
  if (const int error = LibraryFault::strikes("pthread_create")) return error;
  return next(pthread_create, "pthread_create")(thread, attributes, body, argument);
}

// The thread has ended all the same.
int pthread_join(pthread_t thread, void** result) {
  const int joined = next(pthread_join, "pthread_join")(thread, result);
  const int error = LibraryFault::strikes("pthread_join");
  return error != 0 ? error : joined;
}

int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) noexcept {
  if (const int error = LibraryFault::strikes("pthread_mutex_init")) return error;
  return next(pthread_mutex_init, "pthread_mutex_init")(mutex, attributes);
}

int pthread_mutexattr_init(pthread_mutexattr_t* attributes) noexcept {
  if (const int error = LibraryFault::strikes("pthread_mutexattr_init")) return error;
  return next(pthread_mutexattr_init, "pthread_mutexattr_init")(attributes);
}

int pthread_sigmask(int how, const sigset_t* wanted, sigset_t* before) noexcept {
  if (const int error = LibraryFault::strikes("pthread_sigmask")) return error;
  return next(pthread_sigmask, "pthread_sigmask")(how, wanted, before);
}

}  // extern "C"
