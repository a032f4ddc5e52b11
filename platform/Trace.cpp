#include "platform/Trace.h"

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>

#include "platform/Clock.h"
#include "platform/Exception.h"
#include "platform/Format.h"

namespace Zum {

namespace {

using TraceConfig = std::vector<std::pair<std::string_view, int>>;
TraceConfig parseConfig(std::string_view config);

struct Registry {
  std::map<std::string, std::unique_ptr<TraceHandle>, std::less<>> handles;
  std::map<std::string, int, std::less<>> configured;  // levels for handles made later
  int defaultLevel = traceOff;                          // from "*"
  TraceSink sink;

  Registry() {
    const char* env = std::getenv("OLK_TRACE");
    if (!env) return;
    try {
      for (const auto& [handle, level] : parseConfig(env)) levelIs(handle, level);
    } catch (const RangeException& e) {
      std::fprintf(stderr, "OLK_TRACE ignored: %s\n", e.what());
    }
  }

  TraceHandle& handle(std::string_view name) {
    auto it = handles.find(name);
    if (it != handles.end()) return *it->second;
    auto h = std::make_unique<TraceHandle>(std::string(name));
    auto conf = configured.find(name);
    h->levelIs(conf != configured.end() ? conf->second : defaultLevel);
    return *handles.emplace(std::string(name), std::move(h)).first->second;
  }

  void levelIs(std::string_view name, int level) {
    if (name == "*") {
      defaultLevel = level;
      configured.clear();
      for (auto& kv : handles) kv.second->levelIs(level);
      return;
    }
    configured[std::string(name)] = level;
    handle(name).levelIs(level);
  }
};

Registry& registry() {
  static Registry r;
  return r;
}

int parseLevel(std::string_view text) {
  if (text == "*") return traceLevelMax;
  if (text.size() == 1 && text[0] >= '0' && text[0] <= '9') return text[0] - '0';
  throw RangeException("trace level '" + std::string(text) + "' is not 0-9 or *");
}

TraceConfig parseConfig(std::string_view config) {
  TraceConfig entries;
  while (!config.empty()) {
    std::size_t comma = config.find(',');
    std::string_view entry = config.substr(0, comma);
    config = comma == std::string_view::npos ? std::string_view() : config.substr(comma + 1);
    if (entry.empty()) continue;
    std::size_t slash = entry.rfind('/');
    if (slash == std::string_view::npos || slash == 0) {
      throw RangeException("trace entry '" + std::string(entry) + "' is not handle/level");
    }
    entries.emplace_back(entry.substr(0, slash), parseLevel(entry.substr(slash + 1)));
  }
  return entries;
}

}  // namespace

TraceHandle& traceHandle(std::string_view name) { return registry().handle(name); }

void traceLevelIs(std::string_view handle, int level) { registry().levelIs(handle, level); }

void traceConfigIs(std::string_view config) {
  for (const auto& [handle, level] : parseConfig(config)) traceLevelIs(handle, level);
}

TraceSink traceSinkIs(TraceSink sink) {
  TraceSink old = std::move(registry().sink);
  registry().sink = std::move(sink);
  return old;
}

std::string traceLineText(const TraceRecord& r) {
  return format("%.6f %s/%d %s: %s", r.time, r.handle->name().c_str(), r.level, r.function,
                r.text.c_str());
}

TraceLine::~TraceLine() {
  TraceRecord record{wallTime(), &handle_, level_, function_, text_.str()};
  const TraceSink& sink = registry().sink;
  if (sink) {
    sink(record);
  } else {
    std::fprintf(stderr, "%s\n", traceLineText(record).c_str());
  }
}

TraceCapture::TraceCapture(int level) {
  Registry& r = registry();
  savedLevels_.emplace_back("*", r.defaultLevel);
  for (const auto& kv : r.configured) savedLevels_.emplace_back(kv.first, kv.second);
  previous_ = traceSinkIs([this](const TraceRecord& rec) { records_.push_back(rec); });
  traceLevelIs("*", level);
}

TraceCapture::~TraceCapture() {
  for (const auto& [handle, level] : savedLevels_) traceLevelIs(handle, level);
  traceSinkIs(std::move(previous_));
}

std::vector<std::string> TraceCapture::texts() const {
  std::vector<std::string> out;
  out.reserve(records_.size());
  for (const auto& r : records_) out.push_back(r.text);
  return out;
}

bool TraceCapture::contains(std::string_view fragment) const {
  for (const auto& r : records_) {
    if (r.text.find(fragment) != std::string::npos) return true;
  }
  return false;
}

}  // namespace Zum
