#include "platform/Notifier.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/Collection.h"
#include "platform/Entity.h"

namespace {

class Door : public Zum::Entity, public Zum::Notifier {
 public:
  class Notifiee : public Zum::BaseNotifiee<Door> {
   public:
    virtual void onOpen() {}
    virtual void onLabel(const std::string&) {}
  };
  bool open() const { return open_; }
  void openIs(bool v) { attributeIs(open_, v, &Notifiee::onOpen); }
  void labelIs(const std::string& k, const std::string& v) { entryIs(label_, k, v, &Notifiee::onLabel); }
  void labelDel(const std::string& k) { entryDel(label_, k, &Notifiee::onLabel); }
  void labelDelAll() { entryDelAll(label_, &Notifiee::onLabel); }
  const Zum::OrderedMap<std::string, std::string>& label() const { return label_; }

 private:
  bool open_ = false;
  Zum::OrderedMap<std::string, std::string> label_;
};

// Records every call; an optional action runs inside onOpen.
class Watcher : public Door::Notifiee {
 public:
  Watcher(std::string name, std::vector<std::string>* log) : name_(std::move(name)), log_(log) {}
  void onOpen() override {
    log_->push_back(name_);
    if (action) action();
  }
  void onLabel(const std::string& k) override { log_->push_back(name_ + ":" + k); }
  std::function<void()> action;

 private:
  std::string name_;
  std::vector<std::string>* log_;
};

struct NotifierFixture : ::testing::Test {
  Zum::Ptr<Door> door = Zum::create<Door>();
  std::vector<std::string> log;
};

TEST_F(NotifierFixture, CallsInRegistrationOrderOnlyOnChange) {
  Watcher a("a", &log), b("b", &log), c("c", &log);
  b.notifierIs(door);
  a.notifierIs(door);
  c.notifierIs(door);
  door->openIs(false);  // unchanged
  EXPECT_TRUE(log.empty());
  door->openIs(true);
  EXPECT_EQ(log, (std::vector<std::string>{"b", "a", "c"}));
  door->openIs(true);
  EXPECT_EQ(log.size(), 3u);
}

TEST_F(NotifierFixture, CollectionNotifiesPerKeyOnlyOnChange) {
  Watcher a("a", &log);
  a.notifierIs(door);
  door->labelIs("x", "1");
  door->labelIs("x", "1");
  door->labelIs("x", "2");
  door->labelDel("missing");
  door->labelIs("y", "3");
  door->labelDelAll();
  EXPECT_EQ(log, (std::vector<std::string>{"a:x", "a:x", "a:y", "a:x", "a:y"}));
  EXPECT_TRUE(door->label().empty());
}

TEST_F(NotifierFixture, DetachingOrAttachingInsideCallbackSkipsNobodyElse) {
  Watcher a("a", &log), b("b", &log), c("c", &log), d("d", &log);
  for (Watcher* w : {&a, &b, &c, &d}) w->notifierIs(door);
  Watcher late("late", &log);
  a.action = [&] { a.notifierIs(nullptr); };
  b.action = [&] {
    c.notifierIs(nullptr);
    late.notifierIs(door);  // added inside: waits for the next change
  };
  door->openIs(true);
  EXPECT_EQ(log, (std::vector<std::string>{"a", "b", "d"}));
  log.clear();
  b.action = nullptr;
  door->openIs(false);
  EXPECT_EQ(log, (std::vector<std::string>{"b", "d", "late"}));
  EXPECT_EQ(door->notifieeCount(), 3u);
}

TEST_F(NotifierFixture, NotifieeMayDestroyItselfInsideCallback) {
  auto* self = new Watcher("self", &log);
  Watcher after("after", &log);
  self->notifierIs(door);
  after.notifierIs(door);
  self->action = [self] { delete self; };
  door->openIs(true);
  EXPECT_EQ(log, (std::vector<std::string>{"self", "after"}));
  EXPECT_EQ(door->notifieeCount(), 1u);
}

TEST_F(NotifierFixture, NotifierDestroyedInsideCallbackStopsTheWalk) {
  Watcher a("a", &log), b("b", &log);
  a.notifierIs(door);
  b.notifierIs(door);
  Door* raw = door.ptr();
  door = nullptr;  // only the notifiees' pointers keep it alive now
  a.action = [&] {
    a.notifierIs(nullptr);
    b.notifierIs(nullptr);  // last reference: the door is destroyed here
  };
  raw->openIs(true);
  EXPECT_EQ(log, (std::vector<std::string>{"a"}));
}

TEST_F(NotifierFixture, NestedNotificationFromInsideCallback) {
  Watcher a("a", &log), b("b", &log);
  a.notifierIs(door);
  b.notifierIs(door);
  a.action = [&] {
    a.action = nullptr;
    door->openIs(!door->open());  // re-entrant change
  };
  door->openIs(true);
  EXPECT_EQ(log, (std::vector<std::string>{"a", "a", "b", "b"}));
}

TEST_F(NotifierFixture, NotifieeKeepsNotifierAliveAndReattachIsNoOp) {
  Watcher a("a", &log);
  a.notifierIs(door);
  a.notifierIs(door);
  EXPECT_EQ(door->notifieeCount(), 1u);
  EXPECT_EQ(door->references(), 2u);
  Zum::Ptr<Door> other = Zum::create<Door>();
  a.notifierIs(other);
  EXPECT_EQ(door->notifieeCount(), 0u);
  EXPECT_EQ(door->references(), 1u);
  door->openIs(true);
  other->openIs(true);
  EXPECT_EQ(log, (std::vector<std::string>{"a"}));
}

TEST_F(NotifierFixture, ReactionThatThrowsLeavesTheListUsable) {
  Watcher a("a", &log), b("b", &log);
  auto gone = std::make_unique<Watcher>("gone", &log);
  a.notifierIs(door);
  gone->notifierIs(door);
  b.notifierIs(door);
  a.action = [&] {
    gone.reset();  // leaves a hole the walk must compact afterwards
    throw std::runtime_error("reaction failed");
  };
  EXPECT_THROW(door->openIs(true), std::runtime_error);
  a.action = nullptr;
  log.clear();
  door->openIs(false);
  EXPECT_EQ(log, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(door->notifieeCount(), 2u);
}

class SnapshotWatcher : public Door::Notifiee {
 public:
  void onNotifier() override { seen = notifier()->label().keys(); }
  std::vector<std::string> seen;
};

TEST_F(NotifierFixture, AttachingDeliversWholeCollectionHook) {
  door->labelIs("p", "1");
  door->labelIs("q", "2");
  SnapshotWatcher s;
  s.notifierIs(door);
  EXPECT_EQ(s.seen, (std::vector<std::string>{"p", "q"}));
}

TEST(Collection, QueueKeepsRunningIndexesAcrossPops) {
  Zum::Queue<int> q;
  EXPECT_EQ(q.push(10), 0u);
  EXPECT_EQ(q.push(11), 1u);
  EXPECT_EQ(q.pop(), 10);
  EXPECT_EQ(q.push(12), 2u);
  EXPECT_EQ(q.head(), 1u);
  EXPECT_EQ(q.tail(), 3u);
  EXPECT_EQ(q.at(2), 12);
  q.clear();
  EXPECT_EQ(q.head(), 3u);
  EXPECT_EQ(q.push(13), 3u);
}

TEST(Collection, HashMapGetAbsentGivesDefault) {
  Zum::HashMap<int, std::string> m;
  EXPECT_TRUE(m.set(1, "a"));
  EXPECT_FALSE(m.set(1, "a"));
  EXPECT_EQ(m.get(2), "");
  EXPECT_EQ(m.find(2), nullptr);
  EXPECT_EQ(*m.find(1), "a");
}

TEST(CollectionDeathTest, PopFromEmptyQueueAsserts) {
  Zum::Queue<int> q;
  EXPECT_DEATH(q.pop(), "!items_.empty\\(\\)");
}

}  // namespace
