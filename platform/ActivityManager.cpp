#include "platform/ActivityManager.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "platform/Exception.h"

namespace Zum {

namespace {

constexpr U32 readEvents = EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR;
constexpr U32 writeEvents = EPOLLOUT | EPOLLHUP | EPOLLERR;
constexpr int maxEventsPerWait = 64;
// Descriptor serials start at 1; 0 marks the loop's own signalfd.
constexpr U64 signalSerial = 0;

}  // namespace

FileDescriptor::FileDescriptor(ActivityManager* manager, int fd, U64 serial, Name name)
    : Entity(std::move(name)), manager_(manager), fd_(fd), serial_(serial) {}

FileDescriptor::~FileDescriptor() {
  if (fd_ < 0) return;
  manager_->forget(this);
  ::close(fd_);
}

void FileDescriptor::readInterestIs(bool on) {
  if (!assignIfChanged(readInterest_, on)) return;
  manager_->interestChanged(this);
}

void FileDescriptor::writeInterestIs(bool on) {
  if (!assignIfChanged(writeInterest_, on)) return;
  manager_->interestChanged(this);
}

bool FileDescriptor::nonBlocking() const {
  int flags = ::fcntl(fd_, F_GETFL);
  return flags >= 0 && (flags & O_NONBLOCK);
}

void FileDescriptor::nonBlockingIs(bool on) {
  int flags = ::fcntl(fd_, F_GETFL);
  if (flags < 0) throw ErrnoException(errno, "fcntl(F_GETFL)");
  flags = on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
  if (::fcntl(fd_, F_SETFL, flags) < 0) throw ErrnoException(errno, "fcntl(F_SETFL)");
}

int FileDescriptor::release() {
  if (fd_ >= 0) manager_->forget(this);
  int fd = fd_;
  fd_ = -1;
  return fd;
}

ActivityManager::ActivityManager()
    : Entity("ActivityManager"), epollFd_(::epoll_create1(EPOLL_CLOEXEC)), clock_(systemClockFactory()) {
  if (epollFd_ < 0) throw ErrnoException(errno, "epoll_create1");
}

ActivityManager::~ActivityManager() {
  stopOnSignalsIs(false);
  ::close(epollFd_);
}

Ptr<FileDescriptor> ActivityManager::fileDescriptorNew(int fd, const Name& name) {
  if (fd < 0) throw RangeException("ActivityManager::fileDescriptorNew: fd < 0 not allowed");
  U64 serial = nextSerial_++;
  Ptr<FileDescriptor> p = create<FileDescriptor>(this, fd, serial, name);
  descriptors_.emplace(serial, p.ptr());
  interestChanged(p.ptr());
  return p;
}

void ActivityManager::interestChanged(FileDescriptor* fd) {
  U32 events = (fd->readInterest_ ? readEvents : 0) | (fd->writeInterest_ ? writeEvents : 0);
  epoll_event ev{};
  ev.events = events;
  ev.data.u64 = fd->serial_;
  int op = events == 0 ? EPOLL_CTL_DEL : (fd->inEpoll_ ? EPOLL_CTL_MOD : EPOLL_CTL_ADD);
  if (op == EPOLL_CTL_DEL && !fd->inEpoll_) return;
  if (::epoll_ctl(epollFd_, op, fd->fd_, &ev) < 0) throw ErrnoException(errno, "epoll_ctl");
  fd->inEpoll_ = events != 0;
}

void ActivityManager::forget(FileDescriptor* fd) {
  if (fd->inEpoll_) ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd->fd_, nullptr);
  fd->inEpoll_ = false;
  descriptors_.erase(fd->serial_);
}

int ActivityManager::waitMillis(Seconds maxWait) const {
  Seconds wait = std::min(maxWait, clock_->nextTime() - clock_->now());
  if (wait <= 0) return 0;
  if (wait == endOfTime) return -1;
  // Round up: waking early would only find nothing due and wait again.
  return static_cast<int>(std::min(std::ceil(wait * 1000.0), 3600.0 * 1000.0));
}

std::size_t ActivityManager::dispatch(U64 serial, U32 events) {
  if (serial == signalSerial) return handleSignals();
  auto it = descriptors_.find(serial);
  if (it == descriptors_.end()) return 0;  // destroyed earlier in this batch
  FileDescriptor* fd = it->second;
  DestructorGuard guard(fd);  // its readable reaction may release it
  std::size_t calls = 0;
  if (fd->readInterest_ && (events & readEvents)) {
    fd->notifyReadable();
    ++calls;
  }
  if (fd->fd_ >= 0 && fd->writeInterest_ && (events & writeEvents)) {
    fd->notifyWritable();
    ++calls;
  }
  return calls;
}

bool ActivityManager::runOnce(Seconds maxWait) {
  DestructorGuard guard(this);
  epoll_event events[maxEventsPerWait];
  int n = ::epoll_wait(epollFd_, events, maxEventsPerWait, waitMillis(maxWait));
  if (n < 0 && errno != EINTR) throw ErrnoException(errno, "epoll_wait");
  std::size_t calls = 0;
  for (int i = 0; i < n; ++i) calls += dispatch(events[i].data.u64, events[i].events);
  calls += clock_->fireDue(clock_->now());
  return calls != 0;
}

void ActivityManager::run() {
  stopRequested_ = false;
  while (!stopRequested_) runOnce(endOfTime);
}

bool ActivityManager::runUntil(const std::function<bool()>& done, Seconds timeout) {
  const Seconds deadline = clock_->now() + timeout;
  while (!done()) {
    Seconds left = deadline - clock_->now();
    if (left <= 0) return false;
    runOnce(left);
  }
  return true;
}

void ActivityManager::stopOnSignalsIs(bool on) {
  if (on == stopOnSignals()) return;
  if (!on) {
    ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, signalFd_, nullptr);
    ::close(signalFd_);
    signalFd_ = -1;
    ::pthread_sigmask(SIG_SETMASK, &savedSignalMask_, nullptr);
    return;
  }
  sigset_t stopping;
  sigemptyset(&stopping);
  sigaddset(&stopping, SIGTERM);
  sigaddset(&stopping, SIGINT);
  const int fd = ::signalfd(-1, &stopping, SFD_NONBLOCK | SFD_CLOEXEC);
  if (fd < 0) throw ErrnoException(errno, "signalfd");
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.u64 = signalSerial;
  if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &ev) < 0) {
    const int err = errno;
    ::close(fd);
    throw ErrnoException(err, "epoll_ctl");
  }
  // Blocked only once the loop watches the descriptor, so a signal is
  // never held back with nobody to read it.
  ::pthread_sigmask(SIG_BLOCK, &stopping, &savedSignalMask_);
  signalFd_ = fd;
}

std::size_t ActivityManager::handleSignals() {
  std::size_t signals = 0;
  signalfd_siginfo info;
  while (::read(signalFd_, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
    stopSignal_ = static_cast<int>(info.ssi_signo);
    ++signals;
  }
  if (signals != 0) stop();
  return signals;
}

Ptr<ActivityManager> activityManagerFactory() { return create<ActivityManager>(); }

Ptr<ActivityManager> activityManager() {
  thread_local Ptr<ActivityManager> loop = activityManagerFactory();
  return loop;
}

Ptr<Clock> clockOrLoop(const Ptr<Clock>& clock) { return clock ? clock : Ptr<Clock>(activityManager()->clock()); }

}  // namespace Zum
