// What the transaction benchmarks share: an executor that answers every
// configuration with success at once, so the figures measure the
// transaction machinery and not the work.
#pragma once

#include "Olk/XactLib.h"

namespace OlkBench {

class SuccessExecutor : public Olk::XactExecutorSm {
 public:
  SuccessExecutor(const Zum::Name& name, const Olk::Ptr<const Olk::XactConfigDir>& c,
                  const Olk::Ptr<Olk::XactStatusDir>& s, const Olk::Ptr<Zum::Clock>& clock)
      : XactExecutorSm(name, c, s, clock) {}
  Olk::ExecResult doExecute(const Olk::XactConfig&) override { return Olk::ExecResult(Olk::xactSuccess); }
};

}  // namespace OlkBench
