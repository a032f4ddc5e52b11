// Network-namespace helpers: find out which namespace a thread is in, and
// move it into a named one.
//
// A named network namespace is the kind `ip netns add <name>` creates: a
// bind mount of the namespace at /var/run/netns/<name>. The name `DEFAULT_NS`
// stands for the namespace of process 1, the one the system started in.
//
// Typical use switches one thread for the span of one operation:
//
//   int home = Zum::getns(CLONE_NEWNET);
//   Zum::setnsByName("blue", CLONE_NEWNET);
//   ... work inside "blue" ...
//   setns(home, CLONE_NEWNET);
//   close(home);
//
// A namespace change affects only the calling thread. Entering another
// namespace needs CAP_SYS_ADMIN; without it the calls fail with EPERM.
// The helpers keep no state and never throw: failures are -1 and errno.
#pragma once

namespace Zum {

// The name under which the initial network namespace is known.
inline constexpr const char* DEFAULT_NS = "default";

// Opens the calling thread's current namespace of type `nstype` (one of the
// CLONE_NEW* flags) and returns the descriptor, which the caller closes.
// Returns -1 with errno EINVAL for an unknown type, or the open's errno.
int getns(int nstype);

// Moves the calling thread into the network namespace called `name`
// (`DEFAULT_NS` is the initial namespace). Only CLONE_NEWNET is supported;
// other types fail with EINVAL. Returns 0, or -1 with errno set by the
// failing open or setns; the thread then stays where it was.
int setnsByName(const char* name, int nstype);

}  // namespace Zum
