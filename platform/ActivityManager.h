// The activity loop: one thread, one epoll set, one wall clock.
//
// `ActivityManager` is the event loop every component reacts on. It waits in
// epoll_wait until a watched descriptor is ready or the earliest clock
// notifiee falls due, then calls the descriptors' notifiees and the due
// clock notifiees, and waits again. It never polls: with nothing to do it
// blocks. Everything runs on the thread that calls run(); nothing here is
// thread-safe, including stop().
//
// A descriptor is watched through a `FileDescriptor` entity, which owns it
// (closes it when the last pointer goes). Readability interest is on from
// creation, writability off; a hang-up or error counts as readable so a
// reader sees the end of file. Watching is level-triggered: a notifiee that
// leaves data unread is called again. A descriptor with no interest is taken
// out of the epoll set, so an unread hang-up cannot make the loop spin.
//
// Callbacks may destroy descriptors (their own included), stop the loop or
// change clock times; events for descriptors destroyed earlier in the same
// batch are dropped.
#pragma once

#include <signal.h>

#include <cstddef>
#include <functional>
#include <unordered_map>

#include "platform/Clock.h"
#include "platform/Entity.h"
#include "platform/Notifier.h"

namespace Zum {

class ActivityManager;

class FileDescriptor : public Entity, public Notifier {
 public:
  class Notifiee : public BaseNotifiee<FileDescriptor> {
   public:
    virtual void onReadable() {}
    virtual void onWritable() {}
  };

  ~FileDescriptor() override;

  int fd() const { return fd_; }
  bool readInterest() const { return readInterest_; }
  void readInterestIs(bool on);
  bool writeInterest() const { return writeInterest_; }
  void writeInterestIs(bool on);
  bool nonBlocking() const;
  // Sets or clears O_NONBLOCK; throws ErrnoException when fcntl fails.
  void nonBlockingIs(bool on);
  // Stops watching and hands the descriptor back without closing it;
  // fd() is -1 afterwards.
  int release();

 private:
  friend class ActivityManager;
  template <class T, class... A>
  friend Ptr<T> create(A&&...);
  FileDescriptor(ActivityManager* manager, int fd, U64 serial, Name name);

  void notifyReadable() { notify(&Notifiee::onReadable); }
  void notifyWritable() { notify(&Notifiee::onWritable); }

  Ptr<ActivityManager> manager_;
  int fd_;
  U64 serial_;  // identifies this entity in epoll events; never reused
  bool readInterest_ = true;
  bool writeInterest_ = false;
  bool inEpoll_ = false;  // registered with epoll (some interest is on)
};

class ActivityManager : public Entity {
 public:
  ~ActivityManager() override;

  const Ptr<SystemClock>& clock() const { return clock_; }

  // Starts watching `fd`, taking ownership of it. `name` is the entity's
  // name, shown in traces and dumps; it need not be unique.
  Ptr<FileDescriptor> fileDescriptorNew(int fd, const Name& name = {});
  std::size_t fileDescriptorCount() const { return descriptors_.size(); }

  // Loops until stop() is called from a callback.
  void run();
  void stop() { stopRequested_ = true; }
  // Waits at most `maxWait` seconds for work (0 polls), does what is ready
  // and returns whether any callback ran.
  bool runOnce(Seconds maxWait);
  // Runs until done() is true or `timeout` seconds have passed; answers done().
  bool runUntil(const std::function<bool()>& done, Seconds timeout);

  // When on, SIGTERM and SIGINT stop the loop instead of ending the process:
  // they are blocked for the calling thread and read from a signalfd that
  // the loop watches, so run() returns once the batch in which one arrived
  // is done, and stopSignal() says which. Turning it off, or destroying the
  // loop, puts the signal mask back as it was; a signal still unread then
  // takes its default action. Turn it on before starting any thread, since
  // threads inherit the mask and a thread that does not block the signals
  // may take them. Throws ErrnoException when signalfd fails.
  bool stopOnSignals() const { return signalFd_ >= 0; }
  void stopOnSignalsIs(bool on);
  // The signal that last stopped the loop; 0 when none has.
  int stopSignal() const { return stopSignal_; }

 private:
  friend class FileDescriptor;
  template <class T, class... A>
  friend Ptr<T> create(A&&...);
  ActivityManager();

  int waitMillis(Seconds maxWait) const;
  std::size_t dispatch(U64 serial, U32 events);
  void interestChanged(FileDescriptor* fd);
  void forget(FileDescriptor* fd);
  // Reads every signal waiting on signalFd_ and stops the loop; answers how many.
  std::size_t handleSignals();

  int epollFd_;
  Ptr<SystemClock> clock_;
  std::unordered_map<U64, FileDescriptor*> descriptors_;  // by serial
  U64 nextSerial_ = 1;
  bool stopRequested_ = false;
  int signalFd_ = -1;          // the signalfd while stopOnSignals is on; epoll serial 0
  sigset_t savedSignalMask_;   // the mask before stopOnSignals was turned on
  int stopSignal_ = 0;
};

Ptr<ActivityManager> activityManagerFactory();
// The calling thread's loop, created on first use.
Ptr<ActivityManager> activityManager();

}  // namespace Zum
