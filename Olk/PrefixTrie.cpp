#include "Olk/PrefixTrie.h"

#include "platform/Exception.h"
#include "platform/Trace.h"

namespace Olk {

namespace {

Zum::TraceHandle& tr = Zum::traceHandle("PrefixTrie");
constexpr int changeLevel = 8;
constexpr int queryLevel = 9;

}  // namespace

void PrefixTrieState::upgradeState(const Ptr<PrefixTrieState>&, bool) {}

String PrefixTrieState::outputForm() const { return "PrefixTrieState"; }

Ptr<PrefixTrieState> prefixTrieStateFactory() { return Zum::create<PrefixTrieState>(); }

Ptr<PrefixTrie> prefixTrieFactory(const String& name) { return Zum::create<PrefixTrie>(name); }

String::size_type PrefixTrie::getSeparatorPos(const String& s) {
  return s.size() < 2 ? String::npos : s.find_first_of("/.", 1);
}

PrefixTrie::Split PrefixTrie::split(const String& s) {
  Split out;
  String::size_type sepPos = getSeparatorPos(s);
  out.starPos = s.find('*');
  if (sepPos == String::npos) {
    out.component = s;
    return out;
  }
  out.mount = out.starPos == sepPos - 1;
  out.component = s.substr(0, out.mount ? sepPos - 1 : sepPos);
  out.rest = s.substr(sepPos);
  return out;
}

void PrefixTrie::childIs(const Ptr<PrefixTrie>& trie) {
  Zum::requireNonNull(trie, "PrefixTrie", "child");
  child_.set(trie->name(), trie);
  refreshEmpty();
}

void PrefixTrie::childDel(const String& name) {
  child_.del(name);
  refreshEmpty();
}

void PrefixTrie::childDelAll() {
  child_.delAll([](const String&) {});
  refreshEmpty();
}

Ptr<PrefixTrie> PrefixTrie::prefixChildIs(const String& name) {
  if (Ptr<PrefixTrie> existing = child(name)) return existing;
  Ptr<PrefixTrie> created = newPrefixTrie(name);
  childIs(created);
  return created;
}

void PrefixTrie::presentIs(bool present) {
  present_ = present;
  refreshEmpty();
}

Ptr<PrefixTrieState> PrefixTrie::newStateIs() { return prefixTrieStateFactory(); }

Ptr<PrefixTrie> PrefixTrie::newPrefixTrie(const String& name) { return prefixTrieFactory(name); }

void PrefixTrie::prefixIs(const String& prefix, Ptr<PrefixTrieState> state) {
  if (!state) state = newStateIs();
  ZUM_TRACE(tr, changeLevel) << "adding " << prefix << " to " << name() << ", state: " << state->outputForm();
  Split part = split(prefix);
  String::size_type starPos = part.starPos;
  if (part.last()) ZUM_ASSERT(starPos == Zum::String::npos);
  Ptr<PrefixTrie> next = prefixChildIs(part.component);
  if (part.mount) next->mountPointIs(true);
  if (!next->state()) {
    next->stateIs(state);
    ZUM_TRACE(tr, changeLevel) << " Uninitialized state. New: " << state->outputForm();
  }
  if (part.last()) {
    next->presentIs(true);
  } else {
    next->prefixIs(part.rest, state);
  }
}

void PrefixTrie::prefixDel(const String& prefix) {
  ZUM_TRACE(tr, changeLevel) << " deleting " << prefix << " from " << name();
  Split part = split(prefix);
  Ptr<PrefixTrie> next = child(part.component);
  if (!next) {
    ZUM_TRACE(tr, changeLevel) << prefix << " already deleted from " << name();
    return;
  }
  if (part.last()) {
    if (next->children() == 0) {
      childDel(part.component);
      return;
    }
    next->presentIs(false);
    next->stateIs(nullptr);
    return;
  }
  next->prefixDel(part.rest);
  if (next->children() == 0 && !next->present()) childDel(part.component);
}

bool PrefixTrie::hasPrefixInternal(const String& s, bool proper) const {
  ZUM_TRACE(tr, queryLevel) << s << " in " << name() << (proper ? " (proper)" : "");
  Split part = split(s);
  Ptr<PrefixTrie> next = child(part.component);
  if (!next) return false;
  if (part.last()) return proper ? false : next->present();
  return next->present() || next->hasPrefixInternal(part.rest, proper);
}

const PrefixTrie* PrefixTrie::node(const String& s) const {
  const PrefixTrie* at = this;
  for (String rest = s;;) {
    Split part = split(rest);
    Ptr<PrefixTrie> next = at->child(part.component);
    if (!next) return nullptr;
    at = next.ptr();
    if (part.last()) return at;
    rest = part.rest;
  }
}

bool PrefixTrie::isLeaf(const String& s) const {
  const PrefixTrie* at = node(s);
  return at && at->children() == 0;
}

Ptr<PrefixTrieState> PrefixTrie::prefixState(const String& s) const {
  const PrefixTrie* at = node(s);
  return at ? at->state() : nullptr;
}

String PrefixTrie::enclosingPrefixInternal(const String& s, bool proper) const {
  ZUM_TRACE(tr, queryLevel) << s << " in " << name();
  String path, longest;
  const PrefixTrie* at = this;
  for (String rest = s;;) {
    Split part = split(rest);
    Ptr<PrefixTrie> next = at->child(part.component);
    if (!next) return longest;
    path += part.component;
    if (next->present() && !(proper && part.last())) longest = path;
    if (part.last()) return longest;
    at = next.ptr();
    rest = part.rest;
  }
}

void PrefixTrie::append(const Ptr<PrefixTrie>& other) {
  Zum::requireNonNull(other, "PrefixTrie", "other");
  for (const String& name : other->childNames()) {
    Ptr<PrefixTrie> theirs = other->child(name);
    prefixChildIs(name)->appendInternal(theirs, theirs->state());
  }
}

void PrefixTrie::appendInternal(const Ptr<PrefixTrie>& other, const Ptr<PrefixTrieState>& state) {
  if (other->mountPoint()) mountPointIs(true);
  upgradeState(state, other->present());
  if (other->present()) presentIs(true);
  append(other);
}

void PrefixTrie::upgradeState(const Ptr<PrefixTrieState>& state, bool flag) {
  if (!state || state == state_) return;
  if (!state_) {
    state_ = state;
  } else {
    state_->upgradeState(state, flag);
  }
}

}  // namespace Olk
