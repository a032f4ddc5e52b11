#include "platform/Entity.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

struct Probe : Zum::Entity {
  explicit Probe(std::vector<std::string>* log) : Entity("probe"), log_(log) {}
  ~Probe() override { log_->push_back("destroyed"); }
  void handleInitialized() override { log_->push_back("initialized"); }
  void handleDel() override {
    // A temporary pointer made during tear-down must not delete twice.
    Zum::Ptr<Probe> self(this);
    log_->push_back("del refs=" + std::to_string(references()));
  }
  std::vector<std::string>* log_;
};

struct Derived : Probe {
  using Probe::Probe;
};

TEST(Ptr, EntityLivesExactlyAsLongAsSomePointer) {
  std::vector<std::string> log;
  Zum::Ptr<Probe> a = Zum::create<Probe>(&log);
  EXPECT_EQ(a->references(), 1u);
  {
    Zum::Ptr<Probe> b = a;
    Zum::Ptr<const Probe> c = b;
    EXPECT_EQ(a->references(), 3u);
  }
  EXPECT_EQ(a->references(), 1u);
  Zum::Ptr<Probe> moved = std::move(a);
  EXPECT_FALSE(a);
  EXPECT_EQ(moved->references(), 1u);
  EXPECT_EQ(log, (std::vector<std::string>{"initialized"}));
  moved = nullptr;
  EXPECT_EQ(log, (std::vector<std::string>{"initialized", "del refs=2", "destroyed"}));
}

TEST(Ptr, SelfAssignmentAndReassignmentKeepCountsRight) {
  std::vector<std::string> log;
  Zum::Ptr<Probe> a = Zum::create<Probe>(&log);
  Zum::Ptr<Probe>& alias = a;
  a = alias;
  EXPECT_EQ(a->references(), 1u);
  Zum::Ptr<Probe> other = Zum::create<Probe>(&log);
  a = other;  // drops the first
  EXPECT_EQ(log.back(), "destroyed");
  EXPECT_EQ(other->references(), 2u);
}

TEST(Ptr, CastsAndComparisons) {
  std::vector<std::string> log;
  Zum::Ptr<Derived> d = Zum::create<Derived>(&log);
  Zum::Ptr<Probe> base = d;
  EXPECT_TRUE(base == d);
  EXPECT_EQ(Zum::ptr_dynamic_cast<Derived>(base), d);
  Zum::Ptr<Zum::Entity> e = base;
  EXPECT_EQ(Zum::ptr_static_cast<Probe>(e), base);
  EXPECT_EQ(d->references(), 3u);
  EXPECT_EQ(std::hash<Zum::Ptr<Probe>>()(base), std::hash<Zum::Ptr<Derived>>()(d));
}

// A callback that drops the last outside reference to two objects: both
// survive to the end of the guarded scope and are destroyed with the guard.
TEST(Ptr, DestructorGuardDefersDestructionToEndOfScope) {
  std::vector<std::string> log;
  Zum::Ptr<Probe> owner = Zum::create<Probe>(&log);
  Zum::Ptr<Derived> reactor = Zum::create<Derived>(&log);
  log.clear();
  {
    Zum::DestructorGuard guard(reactor.ptr(), owner.ptr(), static_cast<Probe*>(nullptr));
    owner = nullptr;
    reactor = nullptr;
    EXPECT_TRUE(log.empty());
    log.push_back("scope end");
  }
  EXPECT_EQ(log, (std::vector<std::string>{"scope end", "del refs=2", "destroyed", "del refs=2", "destroyed"}));
}

TEST(Ptr, InitializeRunsOnce) {
  std::vector<std::string> log;
  Zum::Ptr<Probe> a = Zum::create<Probe>(&log);
  a->initialize();
  EXPECT_EQ(std::count(log.begin(), log.end(), "initialized"), 1);
  EXPECT_TRUE(a->initializationDone());
}

}  // namespace
