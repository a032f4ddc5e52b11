// Backtraces on fatal signals.
//
// installBacktraceHandlers() makes a crash leave a trail: on SIGSEGV,
// SIGABRT, SIGBUS, SIGFPE or SIGILL the handler writes
//
//   Caught signal 11 (SIGSEGV), backtrace:
//   /usr/lib/libolk.so.0(_ZN3Olk...+0x2a)[0x7f...]
//   ...
//
// to standard error, then restores the default action and raises the signal
// again, so the process still dies of it (exit status, core dump and parent
// notification are as if there were no handler). Frames are named from the
// dynamic symbol table, mangled (pipe them through c++filt); an executable's
// own functions appear only when it is linked with -rdynamic, otherwise as
// file+offset, which addr2line resolves.
//
// The handler uses only async-signal-safe calls and runs on an alternate
// stack, so a stack overflow is reported too (for the installing thread).
// Installing again is harmless; the handlers replace any earlier ones.
#pragma once

namespace Olk {

void installBacktraceHandlers();

}  // namespace Olk
