#include "Olk/Unpage.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "Olk/ProcSysUtils.h"
#include "TestSupport.h"

using namespace Olk;

namespace {

using OlkTest::inChild;

// Resident kilobytes of the executable, non-writable file mappings.
U64 codeRssKb() {
  std::ifstream smaps("/proc/self/smaps");
  std::string line;
  bool code = false;
  U64 total = 0;
  while (std::getline(smaps, line)) {
    std::istringstream fields(line);
    std::string first, perms, offset, dev, inode, path;
    fields >> first;
    if (first.find('-') != std::string::npos && fields >> perms >> offset >> dev >> inode) {
      fields >> path;
      code = perms[1] != 'w' && perms[2] == 'x' && !path.empty() && path[0] == '/';
    } else if (code && first == "Rss:") {
      U64 kb = 0;
      fields >> kb;
      total += kb;
    }
  }
  return total;
}

}  // namespace

TEST(Unpage, ReleasesCodePagesWhileSingleThreaded) {
  int rc = inChild([] {
    U64 before = codeRssKb();
    U64 released = unpage();
    U64 after = codeRssKb();
    if (released == 0) return 1;
    if (after >= before) return 2;
    // Released code comes back from its file when it runs again.
    if (tokenizeShellCommand("a 'b c'").size() != 2) return 3;
    return 0;
  });
  EXPECT_EQ(rc, 0) << "1: nothing released, 2: resident code did not shrink, 3: code broken";
}

TEST(Unpage, DoesNothingWhileAnotherThreadRuns) {
  std::atomic<bool> stop{false};
  std::thread other([&] {
    while (!stop) std::this_thread::yield();
  });
  EXPECT_EQ(unpage(), 0u);
  stop = true;
  other.join();
}
