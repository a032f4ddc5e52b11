#include "Olk/PrefixTrie.h"

#include <gtest/gtest.h>

#include <vector>

#include "platform/Trace.h"

using namespace Olk;

namespace {

// Every leaf below `t` is present and `empty()` agrees with the node.
void checkPruned(const PrefixTrie& t) {
  EXPECT_EQ(t.empty(), !t.present() && t.children() == 0) << t.name();
  for (const String& name : t.childNames()) {
    Ptr<PrefixTrie> c = t.child(name);
    EXPECT_EQ(c->name(), name);
    if (c->children() == 0) {
      EXPECT_TRUE(c->present()) << name;
    }
    checkPruned(*c);
  }
}

class RecordingState : public PrefixTrieState {
 public:
  explicit RecordingState(String label) : label_(std::move(label)) {}
  void upgradeState(const Ptr<PrefixTrieState>& newState, bool flag) override {
    merged.push_back(newState->outputForm() + (flag ? "!" : "?"));
  }
  String outputForm() const override { return label_; }
  std::vector<String> merged;

 private:
  String label_;
};

Ptr<RecordingState> recordingState(const String& label) { return Zum::create<RecordingState>(label); }

class LabelledTrie : public PrefixTrie {
 public:
  explicit LabelledTrie(const String& name) : PrefixTrie(name) {}

 protected:
  Ptr<PrefixTrieState> newStateIs() override { return recordingState("fresh"); }
  Ptr<PrefixTrie> newPrefixTrie(const String& name) override { return Zum::create<LabelledTrie>(name); }
};

}  // namespace

TEST(PrefixTrie, SeparatorSearchSkipsTheFirstCharacter) {
  EXPECT_EQ(PrefixTrie::getSeparatorPos("a/b.c"), 1u);
  EXPECT_EQ(PrefixTrie::getSeparatorPos("ab.c/d"), 2u);
  EXPECT_EQ(PrefixTrie::getSeparatorPos("/b.c"), 2u);
  EXPECT_EQ(PrefixTrie::getSeparatorPos("/b"), String::npos);
  EXPECT_EQ(PrefixTrie::getSeparatorPos(""), String::npos);
}

TEST(PrefixTrie, DeletingTracesAndASecondDeleteIsReported) {
  Ptr<PrefixTrie> t = prefixTrieFactory("root");
  t->prefixIs("a/b");
  Zum::TraceCapture capture;
  t->prefixDel("a/b");
  EXPECT_TRUE(t->empty());
  EXPECT_FALSE(capture.contains("already deleted"));
  t->prefixDel("a/b");
  EXPECT_EQ(capture.texts().back(), "a/b already deleted from root");
  EXPECT_TRUE(capture.contains(" deleting a/b from root"));
}

TEST(PrefixTrie, TracesAdditionsAndQueries) {
  Ptr<PrefixTrie> t = prefixTrieFactory("root");
  Zum::TraceCapture capture;
  t->prefixIs("a/b", recordingState("S"));
  EXPECT_EQ(capture.texts(), (std::vector<std::string>{
                                 "adding a/b to root, state: S",
                                 " Uninitialized state. New: S",
                                 "adding /b to a, state: S",
                                 " Uninitialized state. New: S",
                             }));
  EXPECT_EQ(capture.records().front().handle->name(), "PrefixTrie");
  t->hasProperPrefix("a/b");
  EXPECT_EQ(capture.texts()[4], "a/b in root (proper)");
  EXPECT_EQ(capture.texts()[5], "/b in a (proper)");
  t->enclosingPrefix("x");
  EXPECT_EQ(capture.texts().back(), "x in root");
}

// A star marks a mount point only just before a separator; the fuzz target
// checks the mount points themselves.
TEST(PrefixTrieDeathTest, StarInTheLastComponentIsAProgrammingError) {
  Ptr<PrefixTrie> t = prefixTrieFactory("root");
  EXPECT_DEATH(t->prefixIs("a*"), "starPos == Zum::String::npos");
  EXPECT_DEATH(t->prefixIs("x/y*"), "starPos == Zum::String::npos");
}

TEST(PrefixTrie, PathNodesShareThePrefixState) {
  Ptr<PrefixTrie> t = prefixTrieFactory("root");
  Ptr<PrefixTrieState> s = prefixTrieStateFactory();
  t->prefixIs("a/b/c", s);
  EXPECT_EQ(t->prefixState("a/b/c"), s);
  EXPECT_EQ(t->prefixState("a"), s);
  EXPECT_FALSE(t->prefixState("a/x"));
}

TEST(PrefixTrie, StatesFillOnlyNodesWithout) {
  Ptr<PrefixTrie> t = Zum::create<LabelledTrie>("root");
  t->prefixIs("a/b");
  Ptr<PrefixTrieState> fresh = t->prefixState("a/b");
  EXPECT_EQ(fresh->outputForm(), "fresh");
  EXPECT_TRUE(Zum::ptr_dynamic_cast<LabelledTrie>(t->child("a")));
  Ptr<PrefixTrieState> other = recordingState("other");
  t->prefixIs("a/c", other);
  EXPECT_EQ(t->prefixState("a"), fresh);
  EXPECT_EQ(t->prefixState("a/c"), other);
  EXPECT_THROW(t->childIs(nullptr), Zum::RangeException);
}

TEST(PrefixTrie, AppendMergesPrefixesMountsAndStates) {
  Ptr<PrefixTrie> mine = prefixTrieFactory("mine");
  Ptr<RecordingState> kept = recordingState("kept");
  mine->prefixIs("a/b", kept);
  Ptr<PrefixTrie> theirs = prefixTrieFactory("theirs");
  theirs->prefixIs("a/c", recordingState("c"));
  theirs->prefixIs("a/b", recordingState("b"));
  theirs->prefixIs("x*/y");

  mine->append(theirs);
  for (const char* p : {"a/b", "a/c", "x/y"}) EXPECT_TRUE(mine->hasPrefix(p)) << p;
  EXPECT_FALSE(mine->hasPrefix("a"));
  EXPECT_TRUE(mine->child("x")->mountPoint());
  EXPECT_EQ(mine->prefixState("a/c")->outputForm(), "c");
  // Node a is only on the path in the other trie, a/b is stored there.
  EXPECT_EQ(kept->merged, (std::vector<String>{"c?", "b!"}));
  EXPECT_EQ(theirs->child("a")->children(), 2u);
  checkPruned(*mine);
}
