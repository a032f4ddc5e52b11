// Fills a four-table cuckoo hash table the way an agent would: insert, copy
// the command list to the (here simulated) hardware, acknowledge, repeat.
// Prints occupancy, evictions, cycles and pending items as it goes.
//
//   CuckooHashTableDemo [items] [seed]
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "Olk/CuckooHashTable.h"
#include "platform/Clock.h"
#include "platform/Log.h"

using namespace Olk;
using namespace Olk::Cuckoo;

int main(int argc, char** argv) {
  const U32 items = argc > 1 ? U32(std::strtoul(argv[1], nullptr, 10)) : 16300;
  const U32 seed = argc > 2 ? U32(std::strtoul(argv[2], nullptr, 10)) : 1;
  Zum::logSinkIs([](const Zum::LogRecord& r) { std::printf("log: %s\n", r.text.c_str()); });

  Ptr<Config> config = configFactory("demo", 4);
  config->tableDescListIs(0, 1024, 4);
  config->tableDescListIs(1, 1024, 4);
  config->tableDescListIs(2, 2048, 2);
  config->tableDescListIs(3, 4096, 1);
  config->randomSeedIs(seed);
  Ptr<Status> status = statusFactory("demo");
  Ptr<Zum::ManualClock> clock = Zum::manualClockFactory(0.0);
  Ptr<HashTable> table = hashTableFactory(config, status, clock);

  // The hardware: every slot the agent has written.
  std::vector<std::vector<Ptr<HashItem const>>> hardware;
  for (const auto& [tableId, desc] : config->tableDescList()) hardware.emplace_back(desc->capacity());
  auto applyAndAcknowledge = [&] {
    const Ptr<CuckooCmds>& cmds = status->cuckooCmds();
    for (size_t i = 0; i < cmds->itemSeqs(); ++i) {
      const CuckooLocation& l = cmds->itemSeq(i)->location();
      hardware[l.tableId.value()][size_t(l.index) * config->tableDescList(l.tableId)->binSize() + l.binId] =
          cmds->itemSeq(i)->item();
    }
    config->cmdReadCompletedInc();
  };

  std::mt19937 rng(seed);
  U32 failed = 0;
  for (U32 key = 0; key < items; ++key) {
    if (!table->insertItem(intHashItemFactory(key, rng(), rng(), rng()))) ++failed;
    applyAndAcknowledge();
    if ((key + 1) % 4000 == 0 || key + 1 == items) {
      std::printf("after %5u insertions: occupancy %.3f, pending %zu, cycles %u, commands written %u\n", key + 1,
                  status->occupancy(), status->pendingItemSets(), status->cycleCount(),
                  status->totalCmdReadCompleted());
    }
  }
  // Let the pending review run a few times (nothing frees space, so they stay).
  clock->advance(3 * config->pendingItemReviewQuantum());
  applyAndAcknowledge();

  std::printf("\ninsertions that went pending: %u, retries: %u, longest cycle count: %u\n", failed,
              status->retryCount(), status->longestCycle());
  for (const auto& [tableId, stat] : status->tableStat()) {
    std::printf("table %u: %u / %u slots (%.3f), evictions %u\n", unsigned(tableId.value()), stat->numOfHashItems(),
                stat->tableDesc()->capacity(), stat->occupancy(), stat->numOfEvicts());
  }
  std::fflush(stdout);
  table->currentSnapshot();
  return 0;
}
