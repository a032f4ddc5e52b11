// Collection attributes: keyed maps, a queue with running indexes, a stack.
//
// These hold a component's collection attributes and answer, for every
// mutation, whether anything changed; the notifying operations of
// Notifier.h (`entryIs`, `entryDel`, `entryDelAll`, and `entryEnq`,
// `entryDeq` for a queue) build a component's `xIs(key, v)`, `xDel(key)`,
// `xDelAll()`, `xEnq(v)` and `xDeq()` on that answer.
//
// `OrderedMap` iterates by key; `HashMap` in no promised order;
// `SequencedMap` in insertion order. Values are compared with ==, which for
// `Ptr` means identity.
#pragma once

#include <cstddef>
#include <deque>
#include <iterator>
#include <list>
#include <map>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/Exception.h"
#include "platform/Types.h"

namespace Zum {

template <class Container>
class MapAttribute {
 public:
  using key_type = typename Container::key_type;
  using mapped_type = typename Container::mapped_type;
  using const_iterator = typename Container::const_iterator;

  // Inserts or replaces; true when the stored value differs from before.
  bool set(const key_type& k, const mapped_type& v) {
    auto [it, inserted] = items_.try_emplace(k, v);
    if (inserted) return true;
    if (it->second == v) return false;
    it->second = v;
    return true;
  }
  // True when `k` was present.
  bool del(const key_type& k) { return items_.erase(k) != 0; }
  // Removes every entry, calling onKey(k) after each removal; entries added
  // by onKey while clearing are removed too.
  template <class F>
  void delAll(F&& onKey) {
    while (!items_.empty()) {
      key_type k = items_.begin()->first;
      items_.erase(items_.begin());
      onKey(k);
    }
  }

  bool has(const key_type& k) const { return items_.count(k) != 0; }
  // The value at `k`, or a default-constructed one when absent.
  mapped_type get(const key_type& k) const {
    auto it = items_.find(k);
    return it == items_.end() ? mapped_type{} : it->second;
  }
  const mapped_type* find(const key_type& k) const {
    auto it = items_.find(k);
    return it == items_.end() ? nullptr : &it->second;
  }
  // Ordered maps only: the first entry whose key is not below `k`, or end().
  const_iterator lowerBound(const key_type& k) const { return items_.lower_bound(k); }
  // Positional set and del for a walk that already stands at the place,
  // without a second search (amortised O(1) in an ordered map). setBefore
  // stores an absent `k` whose successor is `next`; delAt removes the entry
  // at `it` and returns the one after it.
  void setBefore(const_iterator next, const key_type& k, const mapped_type& v) { items_.emplace_hint(next, k, v); }
  const_iterator delAt(const_iterator it) { return items_.erase(it); }
  // The keys as they stand now: iterate this when the walk may change the map.
  std::vector<key_type> keys() const {
    std::vector<key_type> out;
    out.reserve(items_.size());
    for (const auto& kv : items_) out.push_back(kv.first);
    return out;
  }

  std::size_t size() const { return items_.size(); }
  bool empty() const { return items_.empty(); }
  const_iterator begin() const { return items_.begin(); }
  const_iterator end() const { return items_.end(); }

 private:
  Container items_;
};

// The container behind `SequencedMap`: iterates in insertion order (a
// replaced value keeps its place) and finds a key by hashing. O(1) insertion,
// lookup and removal; two nodes per entry.
template <class K, class V, class Hash = std::hash<K>>
class InsertionOrderedMap {
 public:
  using key_type = K;
  using mapped_type = V;
  using value_type = std::pair<const K, V>;
  using iterator = typename std::list<value_type>::iterator;
  using const_iterator = typename std::list<value_type>::const_iterator;

  InsertionOrderedMap() = default;
  InsertionOrderedMap(const InsertionOrderedMap&) = delete;  // the index points into items_
  InsertionOrderedMap& operator=(const InsertionOrderedMap&) = delete;

  std::pair<iterator, bool> try_emplace(const K& k, const V& v) {
    if (auto at = index_.find(k); at != index_.end()) return {at->second, false};
    iterator it = items_.emplace(items_.end(), k, v);
    index_.emplace(k, it);
    return {it, true};
  }
  std::size_t erase(const K& k) {
    auto at = index_.find(k);
    if (at == index_.end()) return 0;
    items_.erase(at->second);
    index_.erase(at);
    return 1;
  }
  void erase(const_iterator it) {
    index_.erase(it->first);
    items_.erase(it);
  }
  const_iterator find(const K& k) const {
    auto at = index_.find(k);
    return at == index_.end() ? items_.end() : const_iterator(at->second);
  }
  std::size_t count(const K& k) const { return index_.count(k); }
  std::size_t size() const { return items_.size(); }
  bool empty() const { return items_.empty(); }
  iterator begin() { return items_.begin(); }
  iterator end() { return items_.end(); }
  const_iterator begin() const { return items_.begin(); }
  const_iterator end() const { return items_.end(); }

 private:
  std::list<value_type> items_;                  // insertion order
  std::unordered_map<K, iterator, Hash> index_;  // one entry per element of items_
};

template <class K, class V, class Less = std::less<K>>
using OrderedMap = MapAttribute<std::map<K, V, Less>>;

template <class K, class V, class Hash = std::hash<K>>
using HashMap = MapAttribute<std::unordered_map<K, V, Hash>>;

// Iterates oldest entry first.
template <class K, class V, class Hash = std::hash<K>>
using SequencedMap = MapAttribute<InsertionOrderedMap<K, V, Hash>>;

// FIFO whose entries keep the running index they were given when pushed:
// the head has index `head()`, the entry after it `head() + 1`, and indexes
// never repeat, so a consumer can bookmark a position across pops.
template <class T>
class Queue {
 public:
  using key_type = U64;  // an entry's running index

  // Appends and returns the entry's index.
  U64 push(T v) {
    items_.push_back(std::move(v));
    return head_ + items_.size() - 1;
  }
  T pop() {
    ZUM_ASSERT(!items_.empty());
    T v = std::move(items_.front());
    items_.pop_front();
    ++head_;
    return v;
  }
  const T& front() const {
    ZUM_ASSERT(!items_.empty());
    return items_.front();
  }
  // The entry with running index `i`, which must be in [head(), tail()).
  const T& at(U64 i) const {
    ZUM_ASSERT(i >= head_ && i < tail());
    return items_[static_cast<std::size_t>(i - head_)];
  }
  U64 head() const { return head_; }
  U64 tail() const { return head_ + items_.size(); }
  std::size_t size() const { return items_.size(); }
  bool empty() const { return items_.empty(); }
  void clear() {
    head_ = tail();
    items_.clear();
  }
  // Removes every entry from the head, calling onIndex(i) after each
  // removal; entries pushed by onIndex while clearing are removed too.
  template <class F>
  void delAll(F&& onIndex) {
    while (!items_.empty()) {
      const U64 index = head_;
      pop();
      onIndex(index);
    }
  }

 private:
  std::deque<T> items_;
  U64 head_ = 0;  // running index of items_.front()
};

template <class T>
class Stack {
 public:
  void push(T v) { items_.push_back(std::move(v)); }
  T pop() {
    ZUM_ASSERT(!items_.empty());
    T v = std::move(items_.back());
    items_.pop_back();
    return v;
  }
  const T& top() const {
    ZUM_ASSERT(!items_.empty());
    return items_.back();
  }
  std::size_t size() const { return items_.size(); }
  bool empty() const { return items_.empty(); }

 private:
  std::vector<T> items_;
};

}  // namespace Zum
