// Cell identity: which supervisor cell this process runs on, and what kind.
//
// A system has one or two supervisor cells, numbered 1 and 2. Every agent
// needs its own cell's number and type, the product name and two capability
// flags. Each fact comes from an environment variable when it is set
// (CELLID, CELLTYPE, PRODUCT, ELECTIONMGRSUPPORTED, CPUBMCMODE), else from a
// small file (/etc/cellid, /etc/celltype, /etc/product,
// /etc/electionMgrSupported, /etc/cpuBmcMode), else from a default (cell 42,
// "generic", false). Facts are looked up on first use and cached in a
// `Status`; the free functions read through one process-wide `Status`.
//
// A cell id of 0 is never cached, so an id that parses as 0 (CELLID=abc) is
// looked up again on every call. /etc/cellid must hold exactly a
// non-negative number (decimal, 0x hexadecimal or 0 octal) and nothing else:
// a trailing newline makes it invalid, on purpose, so that a hand-edited
// file is noticed. Lookups block on the file system, briefly, once.
//
// Unreadable files throw Zum::ErrnoException, malformed ones
// Zum::RangeException. Everything runs on the event-loop thread.
#pragma once

#include <map>

#include "Olk/Types.h"
#include "platform/Entity.h"
#include "platform/Notifier.h"

namespace Cell {

using Zum::String;
using CellId = Zum::U16;

// The cached identity facts. The setters are const because they only fill
// the cache; each getter looks its fact up on first use.
class Status : public Zum::Entity {
 public:
  CellId cellId() const;
  void cellIdIs(CellId id) const { cellId_ = id; }
  String cellType() const;
  void cellTypeIs(const String& type) const { cellType_ = type; }
  String product() const;
  void productIs(const String& product) const { product_ = product; }
  bool electionMgrSupported() const;
  void electionMgrSupportedIs(bool on) const;
  bool electionMgrSupportedInitialized() const { return electionMgrSupportedInitialized_; }
  bool cpuBmcMode() const;
  void cpuBmcModeIs(bool on) const;
  bool cpuBmcModeInitialized() const { return cpuBmcModeInitialized_; }

 private:
  template <class T, class... A>
  friend Zum::Ptr<T> Zum::create(A&&...);
  explicit Status(const Zum::Name& name) : Entity(name) {}

  mutable CellId cellId_ = 0;  // 0: not known yet
  mutable String cellType_;    // empty: not known yet
  mutable String product_;     // empty: not known yet
  mutable bool electionMgrSupported_ = false;
  mutable bool electionMgrSupportedInitialized_ = false;
  mutable bool cpuBmcMode_ = false;
  mutable bool cpuBmcModeInitialized_ = false;
};

Zum::Ptr<Status> statusFactory(const Zum::Name& name);

// The cell currently active in the system, as some agent learned it.
class ActiveCell : public Zum::Entity, public Zum::Notifier {
 public:
  class Notifiee : public Zum::BaseNotifiee<ActiveCell> {
   public:
    virtual void onCellId() {}
  };

  CellId cellId() const { return cellId_; }
  void cellIdIs(CellId id) {
    attributeIs(cellId_, id, &Notifiee::onCellId);
  }

 private:
  template <class T, class... A>
  friend Zum::Ptr<T> Zum::create(A&&...);
  explicit ActiveCell(const Zum::Name& name) : Entity(name) {}

  CellId cellId_ = 0;
};

Zum::Ptr<ActiveCell> activeCellFactory(const Zum::Name& name);

// The facts of this process's cell, through the process-wide Status.
CellId cellId();
String cellType();
String product();
bool electionMgrSupported();
bool cpuBmcMode();

// "cell/<cell>/<name>"; cell 0 means this process's cell.
String path(const char* name, unsigned cell = 0);
// "cell/<cell>*/<name>", the pattern matching the cell's mount points; cell
// 0 means this process's cell.
String mountpath(const char* name, unsigned cell = 0);

// Substitutions for path templates: "%cellId", "%cellPath", "%peerCellId",
// "%peerCellPath" (the peer of cell n is 3 - n) and "%sysname" (this
// system's name).
std::map<String, String> initializeCellPathTemplateDict();

// For tests only: read the identity files below `root` ("/etc/cellid"
// becomes root + "/etc/cellid"; empty restores the real files) and forget
// what the process-wide Status has cached.
void testHookFileRootIs(const String& root);

}  // namespace Cell
