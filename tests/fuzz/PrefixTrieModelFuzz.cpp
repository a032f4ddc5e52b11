// PrefixTrie against a std::set of stored prefixes and a std::map of mount
// points, each prefix kept as its list of components.
//
// Names are drawn from a small alphabet (a, b, "/", ".", "*") so that
// components repeat and paths share nodes. Components split at the first "/"
// or "." from the second character on; a "*" that is the first "*" of the
// name and stands just before the separator marks a mount point and is
// dropped. A "*" in the last component of an added prefix is a broken
// invariant, so such adds are not run. After each step every query of the
// trie is compared with the model for the names the step touched, and the
// node tree (children, present flags, mount points) with the prefixes.
#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "Olk/PrefixTrie.h"

namespace {

using Path = std::vector<std::string>;

struct Split {
  Path components;
  std::vector<bool> mount;  // per component
  bool starInLast = false;
};

Split split(std::string s) {
  Split out;
  for (;;) {
    size_t sep = s.find_first_of("/.", 1);
    size_t star = s.find('*');
    if (s.empty() || sep == std::string::npos) {
      out.components.push_back(s);
      out.mount.push_back(false);
      out.starInLast = star != std::string::npos;
      return out;
    }
    bool mount = star == sep - 1;
    out.components.push_back(s.substr(0, mount ? sep - 1 : sep));
    out.mount.push_back(mount);
    s = s.substr(sep);
  }
}

std::string join(const Path& p, size_t n) {
  std::string s;
  for (size_t i = 0; i < n; ++i) s += p[i];
  return s;
}

bool startsWith(const Path& p, const Path& prefix) {
  return prefix.size() <= p.size() && std::equal(prefix.begin(), prefix.end(), p.begin());
}

struct Model {
  std::set<Path> stored;
  std::map<Path, bool> mount;  // every node of the trie, with its mount flag

  bool isNode(const Path& p) const { return mount.count(p) != 0; }
  // Drops the nodes no stored prefix passes through any more.
  void prune() {
    for (auto it = mount.begin(); it != mount.end();) {
      bool used = false;
      for (const Path& s : stored) used = used || startsWith(s, it->first);
      it = used ? std::next(it) : mount.erase(it);
    }
  }
  // The longest stored prefix of `p` (shorter than p when proper), joined.
  std::string enclosing(const Path& p, bool proper) const {
    for (size_t n = proper ? p.size() - 1 : p.size(); n > 0; --n) {
      if (stored.count(Path(p.begin(), p.begin() + n))) return join(p, n);
    }
    return "";
  }
};

std::string name(OlkFuzz::FuzzInput& in) {
  static const char alphabet[] = {'a', 'b', '/', '.', '*', 'a', '/', 'b'};
  std::string s;
  for (unsigned n = in.below(7); n > 0; --n) s += alphabet[in.u8() % sizeof alphabet];
  return s;
}

void expectQueries(const Olk::PrefixTrie& trie, const Model& m, const std::string& s) {
  const Path p = split(s).components;
  bool has = false, proper = false;
  for (size_t n = 1; n <= p.size(); ++n) {
    bool stored = m.stored.count(Path(p.begin(), p.begin() + n)) != 0;
    has = has || stored;
    proper = proper || (stored && n < p.size());
  }
  FUZZ_CHECK(trie.hasPrefix(s) == has, "hasPrefix(" + s + ")");
  FUZZ_CHECK(trie.hasProperPrefix(s) == proper, "hasProperPrefix(" + s + ")");
  FUZZ_CHECK(trie.enclosingPrefix(s) == m.enclosing(p, false), "enclosingPrefix(" + s + ") " + trie.enclosingPrefix(s));
  FUZZ_CHECK(trie.properEnclosingPrefix(s) == m.enclosing(p, true), "properEnclosingPrefix(" + s + ")");
  const bool node = m.isNode(p);
  FUZZ_CHECK(trie.isPrefix(s) == node, "isPrefix(" + s + ")");
  bool leaf = node;
  for (const Path& q : m.stored) leaf = leaf && !(q.size() > p.size() && startsWith(q, p));
  FUZZ_CHECK(trie.isLeaf(s) == leaf, "isLeaf(" + s + ")");
}

// Walks the node tree and compares it with the model's nodes.
void expectTree(const Olk::PrefixTrie& node, const Model& m, Path& at, size_t* seen) {
  for (const std::string& child : node.childNames()) {
    at.push_back(child);
    Ptr<Olk::PrefixTrie> c = node.child(child);
    auto it = m.mount.find(at);
    FUZZ_CHECK(it != m.mount.end(), "a node the model does not have: " + join(at, at.size()));
    FUZZ_CHECK(c->mountPoint() == it->second, "mount point of " + join(at, at.size()));
    FUZZ_CHECK(c->present() == (m.stored.count(at) != 0), "present flag of " + join(at, at.size()));
    ++*seen;
    expectTree(*c, m, at, seen);
    at.pop_back();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  OlkFuzz::FuzzInput in = OlkFuzz::tracedInput(data, size);
  Ptr<Olk::PrefixTrie> trie = Olk::prefixTrieFactory("root");
  Model m;
  while (in.nextStep(48)) {
    const unsigned op = in.u8() % 3;
    const std::string s = name(in);
    const Split parts = split(s);
    if (op == 0) {
      if (parts.starInLast) continue;  // a broken invariant on purpose
      trie->prefixIs(s);
      for (size_t n = 1; n <= parts.components.size(); ++n) {
        m.mount[Path(parts.components.begin(), parts.components.begin() + n)] |= parts.mount[n - 1];
      }
      m.stored.insert(parts.components);
    } else if (op == 1) {
      trie->prefixDel(s);
      m.stored.erase(parts.components);
      m.prune();
    }
    expectQueries(*trie, m, s);
    Path at;
    size_t seen = 0;
    expectTree(*trie, m, at, &seen);
    FUZZ_CHECK(seen == m.mount.size(), "the trie lacks nodes the model has");
    FUZZ_CHECK(trie->empty() == m.stored.empty(), "empty()");
  }
  return 0;
}
