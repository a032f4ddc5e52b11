// Collection attributes: keyed maps, a queue with running indexes, a stack.
//
// These hold a component's collection attributes and answer, for every
// mutation, whether anything changed; the notifying operations of
// Notifier.h (`entryIs`, `entryDel`, `entryDelAll`) build a component's
// `xIs(key, v)`, `xDel(key)` and `xDelAll()` on that answer.
//
// `OrderedMap` iterates by key; `HashMap` in no promised order. Values are
// compared with ==, which for `Ptr` means identity.
#pragma once

#include <cstddef>
#include <deque>
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

template <class K, class V, class Less = std::less<K>>
using OrderedMap = MapAttribute<std::map<K, V, Less>>;

template <class K, class V, class Hash = std::hash<K>>
using HashMap = MapAttribute<std::unordered_map<K, V, Hash>>;

// FIFO whose entries keep the running index they were given when pushed:
// the head has index `head()`, the entry after it `head() + 1`, and indexes
// never repeat, so a consumer can bookmark a position across pops.
template <class T>
class Queue {
 public:
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
