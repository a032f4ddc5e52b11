// PrefixTrie: a set of path-like name prefixes (a/b, x.y), each with a state
// object, answering whether a name has a stored prefix, which stored prefix
// encloses it, and whether a name is a leaf. Each node is itself a PrefixTrie
// named by one component.
//
// Names split at "/" and ".", searching from the second character, so every
// lower component keeps its leading separator: a/b.c is a, /b, .c, and a/b
// and a.b differ. "a*/b" marks node a as a mount point (the "*" is dropped).
// Deleting prunes childless, non-present nodes bottom-up: every leaf is
// present, and a trie whose prefixes were all deleted has no children left.
// Choices: `enclosingPrefix` gives the longest stored prefix on the path;
// names that lead to no node answer false / null; `append` merges a state
// held on both sides with `upgradeState`, flag true when the other trie
// stores a prefix ending at that node. O(components) hash lookups each; one
// event-loop thread; traces "PrefixTrie", level 8 changes, level 9 queries.
#pragma once

#include <vector>

#include "Olk/Types.h"
#include "platform/Collection.h"
#include "platform/Entity.h"

namespace Olk {

// The caller's payload for one prefix. The base keeps nothing; subclasses
// carry real state and override the two virtuals.
class PrefixTrieState : public Zum::Entity {
 public:
  // Merges `newState` into this state; `flag` true means that where both
  // hold something, `newState` wins. The base has nothing to merge.
  virtual void upgradeState(const Ptr<PrefixTrieState>& newState, bool flag);
  // The state's text, used in traces.
  virtual String outputForm() const;

 protected:
  PrefixTrieState() = default;
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&... args);
};

Ptr<PrefixTrieState> prefixTrieStateFactory();

class PrefixTrie : public Zum::Entity {
 public:
  // --- Nodes -----------------------------------------------------------------
  // The child reached by component `name`, or null.
  Ptr<PrefixTrie> child(const String& name) const { return child_.get(name); }
  // Adds (or replaces) the child under its own name; a null trie is refused.
  void childIs(const Ptr<PrefixTrie>& trie);
  void childDel(const String& name);
  void childDelAll();
  U32 children() const { return static_cast<U32>(child_.size()); }
  std::vector<String> childNames() const { return child_.keys(); }

  Ptr<PrefixTrie> prefixChild(const String& name) const { return child(name); }
  // The child for `name`, created (without state) when absent.
  Ptr<PrefixTrie> prefixChildIs(const String& name);
  void prefixChildDel(const String& name) { childDel(name); }

  bool present() const { return present_; }
  void presentIs(bool present);
  bool mountPoint() const { return mountPoint_; }
  void mountPointIs(bool mountPoint) { mountPoint_ = mountPoint; }
  const Ptr<PrefixTrieState>& state() const { return state_; }
  void stateIs(const Ptr<PrefixTrieState>& state) { state_ = state; }
  // True while no prefix ends at this node or below it.
  bool empty() const { return empty_; }

  // --- Prefixes --------------------------------------------------------------
  // Stores `prefix`. Every node on its path that has no state gets `state`
  // (a fresh one from newStateIs() when null); existing states are kept.
  // A "*" in the last component is a broken invariant.
  void prefixIs(const String& prefix, Ptr<PrefixTrieState> state = nullptr);
  // Removes `prefix`; a node that still has children only loses its
  // present flag and state. Deleting an absent prefix only traces.
  void prefixDel(const String& prefix);

  // Whether some stored prefix is a prefix of `s` (component-wise), `s`
  // itself included; the proper form excludes `s` itself.
  bool hasPrefix(const String& s) const { return hasPrefixInternal(s, false); }
  bool hasProperPrefix(const String& s) const { return hasPrefixInternal(s, true); }
  // Whether `s` leads to a node, i.e. is a stored prefix or lies on the
  // path of one.
  bool isPrefix(const String& s) const { return node(s) != nullptr; }
  // Whether `s` leads to a node without children.
  bool isLeaf(const String& s) const;
  // The state of the node `s` leads to, or null.
  Ptr<PrefixTrieState> prefixState(const String& s) const;
  // The longest stored prefix of `s` ("" when none), rebuilt from the
  // components (a mount point's "*" is not included); the proper form
  // excludes `s` itself.
  String enclosingPrefix(const String& s) const { return enclosingPrefixInternal(s, false); }
  String properEnclosingPrefix(const String& s) const { return enclosingPrefixInternal(s, true); }

  // Adds every prefix of `other`, with mount points and states.
  void append(const Ptr<PrefixTrie>& other);
  // Merges `state` into this node's state, or adopts it when this node has
  // none; a null state changes nothing.
  void upgradeState(const Ptr<PrefixTrieState>& state, bool flag);

  // The separator position in `s` searched from index 1, or npos.
  static String::size_type getSeparatorPos(const String& s);

 protected:
  explicit PrefixTrie(const String& name) : Zum::Entity(name) {}
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&... args);

  // The state for a prefix added without one.
  virtual Ptr<PrefixTrieState> newStateIs();
  // Makes the node for a new component; subclasses return their own type.
  virtual Ptr<PrefixTrie> newPrefixTrie(const String& name);
  void emptyIs(bool empty) { empty_ = empty; }

 private:
  // One split step: the component (without a trailing mount "*") and the rest.
  struct Split {
    String component;
    String rest;
    String::size_type starPos = String::npos;  // the first "*" anywhere in the name
    bool mount = false;
    bool last() const { return rest.empty(); }
  };
  static Split split(const String& s);

  bool hasPrefixInternal(const String& s, bool proper) const;
  String enclosingPrefixInternal(const String& s, bool proper) const;
  void appendInternal(const Ptr<PrefixTrie>& other, const Ptr<PrefixTrieState>& state);
  // The node `s` leads to, or null.
  const PrefixTrie* node(const String& s) const;
  void refreshEmpty() { empty_ = !present_ && child_.empty(); }

  Zum::HashMap<String, Ptr<PrefixTrie>> child_;  // keyed by each child's name()
  bool present_ = false;
  bool mountPoint_ = false;
  Ptr<PrefixTrieState> state_;
  bool empty_ = true;  // == !present_ && child_.empty(): pruning keeps leaves present
};

Ptr<PrefixTrie> prefixTrieFactory(const String& name);

}  // namespace Olk
