// Change notification: notifiers, notifiees and the list that connects them.
//
// A component that announces changes derives from `Zum::Notifier` and nests
// a `Notifiee` class (derived from `BaseNotifiee<Component>`) with one
// virtual reaction per attribute, `onX()` or `onX(key)` for collections,
// each doing nothing by default. A reactor derives from that Notifiee,
// overrides what it cares about, and attaches with `notifierIs(ptr)`:
//
//   class Door : public Zum::Entity, public Zum::Notifier {
//    public:
//     class Notifiee : public Zum::BaseNotifiee<Door> {
//      public:
//       virtual void onOpen() {}
//     };
//     bool open() const { return open_; }
//     void openIs(bool v) { attributeIs(open_, v, &Notifiee::onOpen); }
//     void labelIs(const String& k, const String& v) { entryIs(label_, k, v, &Notifiee::onLabel); }
//     void labelDel(const String& k) { entryDel(label_, k, &Notifiee::onLabel); }
//     void labelDelAll() { entryDelAll(label_, &Notifiee::onLabel); }
//    private:
//     bool open_ = false;
//     Zum::OrderedMap<String, String> label_;  // Collection.h
//   };
//
// Every notifying setter is one of those calls (or the queue, positional and
// get-or-create forms further down), so the rule lives in one place.
// Guarantees: notifiees are called in registration order; a setter that
// stores an equal value calls nobody. From inside a
// reaction a notifiee may detach itself or any other notifiee, attach new
// ones, or destroy itself: detached ones are not called afterwards, new ones
// are first called on the next change, and nobody still attached is skipped.
// The notifier itself may be destroyed by a reaction; the notification then
// stops, so `notify()` should be the last thing a setter does.
//
// A notifiee holds its notifier by `Ptr`; the notifier holds notifiees by
// raw pointer and never owns them. A notifier whose registration hooks treat
// the notifiee as its concrete Notifiee type needs that Notifiee to call
// `notifierIs(nullptr)` in its own destructor, before it stops being one.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

#include "platform/Ptr.h"

namespace Zum {

class NotifieeList;

// Common root of every notifiee, so a notifier can keep one list type.
class RootNotifiee {
 public:
  RootNotifiee() = default;
  RootNotifiee(const RootNotifiee&) = delete;
  RootNotifiee& operator=(const RootNotifiee&) = delete;
  virtual ~RootNotifiee() = default;

 private:
  friend class NotifieeList;
  static constexpr std::size_t notListed = static_cast<std::size_t>(-1);
  std::size_t slot_ = notListed;  // index in its notifier's list; one notifier at a time
};

// Registration-ordered list of notifiees that stays valid while it is being
// walked and changed from inside the walk. Adding and removing are O(1)
// amortised: a removal leaves a hole, and holes are squeezed out once they
// outnumber the notifiees and no walk is in progress.
class NotifieeList {
 public:
  NotifieeList() = default;
  NotifieeList(const NotifieeList&) = delete;
  NotifieeList& operator=(const NotifieeList&) = delete;
  ~NotifieeList() {
    for (Walk* w = walks_; w; w = w->outer) w->listGone = true;
    for (RootNotifiee* n : items_) {
      if (n) n->slot_ = RootNotifiee::notListed;
    }
  }

  void add(RootNotifiee* n) {
    n->slot_ = items_.size();
    items_.push_back(n);
    ++live_;
  }
  // Removes `n`; a no-op when it is not in the list.
  void del(RootNotifiee* n) {
    std::size_t i = n->slot_;
    if (i >= items_.size() || items_[i] != n) return;
    items_[i] = nullptr;
    n->slot_ = RootNotifiee::notListed;
    --live_;
    if (!walks_) maybeCompact();
  }
  std::size_t size() const { return live_; }
  bool empty() const { return live_ == 0; }

  // Calls f(n) for every notifiee present when the walk starts and still
  // present when its turn comes. Returns false when the list was destroyed
  // during the walk (the owner is gone: touch nothing of it).
  template <class F>
  bool forEach(F&& f) {
    if (live_ == 0) return true;  // most notifiers have nobody listening
    Walk walk(this);
    const std::size_t end = items_.size();
    for (std::size_t i = 0; i < end; ++i) {
      RootNotifiee* n = items_[i];
      if (!n) continue;
      f(n);  // may throw: the walk still ends properly
      if (walk.listGone) return false;
    }
    return true;
  }

 private:
  // One walk in progress; ends itself on leaving forEach, also by exception.
  struct Walk {
    explicit Walk(NotifieeList* l) : list(l), outer(l->walks_) { l->walks_ = this; }
    ~Walk() {
      if (listGone) return;  // the list is destroyed: touch nothing of it
      list->walks_ = outer;
      if (!outer) list->maybeCompact();
    }
    NotifieeList* list;
    Walk* outer;
    bool listGone = false;
  };

  void maybeCompact() {
    if (2 * live_ >= items_.size()) return;
    std::size_t kept = 0;
    for (RootNotifiee* n : items_) {
      if (!n) continue;
      n->slot_ = kept;
      items_[kept++] = n;
    }
    items_.resize(kept);
  }

  std::vector<RootNotifiee*> items_;  // registration order; null marks a hole
  std::size_t live_ = 0;              // non-null entries
  Walk* walks_ = nullptr;             // innermost walk in progress, or null
};

// Stores `v` in `slot` and answers whether the stored value changed; the
// building block of every notify-on-change setter.
template <class T, class V>
bool assignIfChanged(T& slot, V&& v) {
  if (slot == v) return false;
  slot = std::forward<V>(v);
  return true;
}

// Mixin for anything that has notifiees.
class Notifier {
 public:
  Notifier() = default;
  Notifier(const Notifier&) = delete;
  Notifier& operator=(const Notifier&) = delete;
  virtual ~Notifier() = default;

  std::size_t notifieeCount() const { return notifiees_.size(); }

  // Registration hooks called by BaseNotifiee::notifierIs; a notifier that
  // must track its notifiees (a clock, a timer wheel) overrides them and
  // calls the base.
  virtual void newNotifieeInternal(RootNotifiee* n) const { notifiees_.add(n); }
  virtual void deleteNotifieeInternal(RootNotifiee* n) const { notifiees_.del(n); }

 protected:
  // Calls (n->*reaction)(args...) on every notifiee. Returns false when a
  // reaction destroyed this notifier.
  template <class N, class... P, class... A>
  bool notify(void (N::*reaction)(P...), A&&... args) const {
    return notifiees_.forEach([&](RootNotifiee* n) { (static_cast<N*>(n)->*reaction)(args...); });
  }
  template <class F>
  bool forEachNotifiee(F&& f) const {
    return notifiees_.forEach(std::forward<F>(f));
  }

  // The notifying scalar setter: stores `v` in `slot` and, only when the
  // stored value changed, calls `reaction`. Returns whether it changed.
  template <class T, class V, class N>
  bool attributeIs(T& slot, V&& v, void (N::*reaction)()) const {
    if (!assignIfChanged(slot, static_cast<T>(std::forward<V>(v)))) return false;
    notify(reaction);
    return true;
  }

  // The notifying collection operations over a keyed map (Collection.h's
  // OrderedMap or HashMap): each changed key is announced as reaction(key).
  // entryIs inserts or replaces and is silent when the value is equal;
  // entryDel is silent for an absent key; entryDelAll announces every key it
  // removes, one at a time, also keys added by a reaction while it clears.
  template <class M, class V, class N, class P>
  bool entryIs(M& map, const typename M::key_type& key, V&& v, void (N::*reaction)(P)) const {
    if (!map.set(key, std::forward<V>(v))) return false;
    notify(reaction, key);
    return true;
  }
  template <class M, class N, class P>
  bool entryDel(M& map, const typename M::key_type& key, void (N::*reaction)(P)) const {
    const typename M::key_type gone = key;  // `key` may live in the entry being erased
    if (!map.del(gone)) return false;
    notify(reaction, gone);
    return true;
  }
  // Get-or-create for a collection of owned entities: the value at `key`,
  // or, when there is none, make()'s result stored there and announced.
  template <class M, class Make, class N, class P>
  typename M::mapped_type entryFoundOrIs(M& map, const typename M::key_type& key, Make&& make,
                                         void (N::*reaction)(P)) const {
    if (const typename M::mapped_type* present = map.find(key)) return *present;
    typename M::mapped_type made = make();
    entryIs(map, key, made, reaction);
    return made;
  }
  // Positional forms for a walk over an ordered map (Collection.h's
  // setBefore and delAt), announcing the key like entryIs and entryDel; a
  // reaction must not change the map while the caller holds positions in it.
  template <class M, class V, class N, class P>
  void entryIsBefore(M& map, typename M::const_iterator next, const typename M::key_type& key, V&& v,
                     void (N::*reaction)(P)) const {
    map.setBefore(next, key, std::forward<V>(v));
    notify(reaction, key);
  }
  template <class M, class N, class P>
  typename M::const_iterator entryDelAt(M& map, typename M::const_iterator it, void (N::*reaction)(P)) const {
    const typename M::key_type gone = it->first;
    const typename M::const_iterator next = map.delAt(it);
    notify(reaction, gone);
    return next;
  }
  template <class M, class N, class P>
  void entryDelAll(M& map, void (N::*reaction)(P)) const {
    map.delAll([&](const typename M::key_type& key) { notify(reaction, key); });
  }
  // The same for a queue (Collection.h's Queue), whose key is the running
  // index: entryEnq appends and entryDeq removes the head, each announcing
  // the entry's index; entryDelAll above empties it head first.
  template <class Q, class V, class N, class P>
  void entryEnq(Q& queue, V&& v, void (N::*reaction)(P)) const {
    notify(reaction, queue.push(std::forward<V>(v)));
  }
  template <class Q, class N, class P>
  auto entryDeq(Q& queue, void (N::*reaction)(P)) const {
    const typename Q::key_type index = queue.head();
    auto v = queue.pop();
    notify(reaction, index);
    return v;
  }

 private:
  mutable NotifieeList notifiees_;
};

// Base of a component's nested Notifiee. `NotifierT` may be const-qualified
// for reactors that only observe.
template <class NotifierT>
class BaseNotifiee : public RootNotifiee {
 public:
  using Notifier = NotifierT;

  BaseNotifiee() = default;
  ~BaseNotifiee() override { detach(); }

  const Ptr<NotifierT>& notifier() const { return notifier_; }
  bool isRegisteredNotifiee() const { return static_cast<bool>(notifier_); }

  // Moves this notifiee to `n` (null detaches). Attaching again to the
  // current notifier does nothing. After attaching, onNotifier() runs so a
  // reactor can take in the notifier's present state at once.
  void notifierIs(const Ptr<NotifierT>& n) {
    if (n == notifier_) return;
    detach();
    if (!n) return;
    notifier_ = n;
    n->newNotifieeInternal(this);
    onNotifier();
  }

 protected:
  // Called after attaching; a whole-collection notification, by default none.
  virtual void onNotifier() {}

 private:
  void detach() {
    if (!notifier_) return;
    Ptr<NotifierT> old = std::move(notifier_);
    old->deleteNotifieeInternal(this);
  }

  Ptr<NotifierT> notifier_;
};

}  // namespace Zum
