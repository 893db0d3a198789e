// Listings: compact records over a side table.
//
// A listing of 10,000 tasks used to be 10,000 records of 16 KiB, and each record costs
// at least one fresh page (its link is written), which alone is some 15 ms of page
// faults. A listing reads only a few hundred bytes per task, so it keeps those in a
// side table and hands out 64-byte slots: 10,000 tasks are some 160 pages of slots plus
// the side table. A slot is a record as far as its first fields go (link, marker,
// owner); behind an empty event name a tag names its side entry. The record accessors
// (Read, Full, Edit) resolve a slot to its entry, and give it a full record of its own
// when it is written to. A copy of a slot (the record read by value) is filled in place
// on first use: from its listing while that lives, else from the store by id.
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <random>
#include <utility>
#include <vector>

#include "core/log.h"
#include "internal.h"

namespace orva_sched {

namespace {

constexpr size_t kSlot = 64;
constexpr uint32_t kMagic = 0x4c53544bu;

// Behind the event name's terminator, so that the event reads as empty.
struct Tag {
  uint32_t magic;
  uint32_t slot;
  uint32_t version;  // 0: as listed; n: the n-th record written for a slot of the listing
  uint32_t reserved;
  uint64_t serial;   // of the listing, never reused in the process
  int64_t id;
};
constexpr size_t kTagAt = offsetof(ORVA_SCHED_TASK, event) + 4;
static_assert(offsetof(ORVA_SCHED_TASK, next) == 0 && offsetof(ORVA_SCHED_TASK, marker) == 8 &&
                  offsetof(ORVA_SCHED_TASK, owner) == 16 && offsetof(ORVA_SCHED_TASK, event) == 20,
              "a slot holds the record's first fields as they are");
static_assert(kTagAt + sizeof(Tag) <= kSlot, "the tag fits in a slot");

// Texts go in chunks this large; only the pages written become resident.
constexpr size_t kChunk = 1 << 20;

// A listing's memory is mapped, not taken from the heap, so that it goes back to the
// system when the listing is freed, whatever else the heap holds. Up to kKeep bytes of
// freed mappings are kept for the next listing: a fresh page costs about 1.5 us to
// fault in, and a listing of 10,000 tasks writes some 700 of them.
constexpr size_t kKeep = 3 << 20;
std::mutex gSpareMutex;
std::vector<std::pair<void*, size_t>> gSpare;  // oldest first
size_t gSpareBytes = 0;

void* Map(size_t bytes) {
  {
    std::lock_guard<std::mutex> lock(gSpareMutex);
    for (auto it = gSpare.rbegin(); it != gSpare.rend(); ++it) {
      if (it->second == bytes) {
        void* p = it->first;
        gSpareBytes -= bytes;
        gSpare.erase(std::next(it).base());
        return p;
      }
    }
  }
  void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  return p == MAP_FAILED ? nullptr : p;
}

// Keeps a mapping for reuse, the oldest kept ones going back when over kKeep.
void Unmap(void* p, size_t bytes) {
  std::lock_guard<std::mutex> lock(gSpareMutex);
  if (bytes > kKeep) {
    munmap(p, bytes);
    return;
  }
  gSpare.emplace_back(p, bytes);
  gSpareBytes += bytes;
  while (gSpareBytes > kKeep) {
    munmap(gSpare.front().first, gSpare.front().second);
    gSpareBytes -= gSpare.front().second;
    gSpare.erase(gSpare.begin());
  }
}

bool Tagged(const ORVA_SCHED_TASK& t, Tag* tag) {
  if (t.event[0] != '\0') return false;
  memcpy(tag, reinterpret_cast<const char*>(&t) + kTagAt, sizeof(*tag));
  return tag->magic == kMagic;
}

void WriteTag(ORVA_SCHED_TASK* t, const Tag& tag) { memcpy(reinterpret_cast<char*>(t) + kTagAt, &tag, sizeof(tag)); }

// A random start per process: a stale or foreign tag does not name a live listing.
uint64_t NextSerial() {
  static std::atomic<uint64_t> next{(static_cast<uint64_t>(std::random_device{}()) << 32) | 1u};
  return next.fetch_add(1);
}

thread_local sqlite3* tListingDb = nullptr;  // the connection a thread building a listing holds

}  // namespace

struct Listing;

namespace {

// The listing this thread is building. Until ListGet returns, no other thread can hold
// one of its records, so this thread reads and grows it without the lock.
thread_local Listing* tBuilding = nullptr;

}  // namespace

struct Listing {
  uint64_t serial = 0;
  char* base = nullptr;  // capacity slots, then a record's size of slack
  size_t baseBytes = 0;
  size_t capacity = 0;
  size_t used = 0;      // slots handed out
  size_t live = 0;      // slots kept and not yet freed
  bool spare = false;   // the last slot was refused by the filter and is reused
  ListEntry* entries = nullptr;                  // per slot
  std::vector<ORVA_SCHED_TASK*> versions;        // records written slots own
  std::vector<std::pair<char*, size_t>> chunks;  // texts
  size_t chunkLeft = 0;

  ORVA_SCHED_TASK* Slot(size_t i) const { return reinterpret_cast<ORVA_SCHED_TASK*>(base + i * kSlot); }
  bool Holds(const void* p) const {
    const char* c = static_cast<const char*>(p);
    return c >= base && c < base + capacity * kSlot;
  }
};

namespace {

std::mutex gMutex;
std::vector<Listing*> gListings;  // live listings

Listing* BySerial(uint64_t serial) {
  for (Listing* l : gListings) {
    if (l->serial == serial) return l;
  }
  return nullptr;
}

// The listing whose slot `t` is, by its tag; null for anything else. Caller holds gMutex.
Listing* SlotListing(const ORVA_SCHED_TASK& t, const Tag& tag) {
  Listing* l = BySerial(tag.serial);
  if (!l || tag.slot >= l->used || l->Slot(tag.slot) != &t || tag.version > l->versions.size()) return nullptr;
  return l;
}

void Destroy(Listing* l) {
  gListings.erase(std::find(gListings.begin(), gListings.end(), l));
  for (ORVA_SCHED_TASK* v : l->versions) free(v);
  for (size_t i = 0; i < l->used; ++i) free(l->entries[i].full);
  for (const auto& c : l->chunks) Unmap(c.first, c.second);
  Unmap(l->entries, l->capacity * sizeof(ListEntry));
  // The slots written are zeroed for the next listing; the slack after them never is
  // written, so it stays zero.
  memset(l->base, 0, l->used * kSlot);
  Unmap(l->base, l->baseBytes);
  delete l;
}

// The entry's fields into a zeroed record; the rest is read by LoadUnlisted.
void EntryToRecord(const ListEntry& e, ORVA_SCHED_TASK& t) {
  t.id = e.id;
  t.real_owner = e.real_owner;
  t.truncated = e.truncated;
  t.saved = e.saved;
  t.enabled = e.enabled;
  t.listable = e.listable;
  t.can_edit_from_ui = e.can_edit_from_ui;
  t.can_delete_from_ui = e.can_delete_from_ui;
  t.can_run_from_ui = e.can_run_from_ui;
  t.schedule = e.schedule;
  // Entry texts were cut to their fields when listed.
  strcpy(t.name, e.name);
  strcpy(t.app, e.app);
  strcpy(t.app_name, e.app_name);
  strcpy(t.action, e.action);
}

// Reads what the listing left in the store of listed task `id` into `t`.
void LoadUnlisted(int64_t id, ORVA_SCHED_TASK& t) {
  bool found;
  if (tListingDb) {
    found = ReadUnlisted(tListingDb, id, t);
  } else {
    Conn conn;
    found = conn.db() && ReadUnlisted(conn.db(), id, t);
  }
  if (!found) {
    ORVA_LOG(LOG_WARNING, "listed task [%ld] is gone: its command, app arguments and edit form read empty",
             static_cast<long>(id));
  }
}

ORVA_SCHED_TASK* NewRecord() {
  // 16 KiB: a getter has no way to report failure, and nothing else would work either.
  ORVA_SCHED_TASK* t = static_cast<ORVA_SCHED_TASK*>(calloc(1, sizeof(ORVA_SCHED_TASK)));
  if (!t) abort();
  return t;
}

// Fills a copy of a listed slot in place; it then is a record like any other. Its own
// link, marker and owner stay.
void FillCopy(ORVA_SCHED_TASK& t, const Tag& tag) {
  ORVA_SCHED_TASK* const next = t.next;
  const int64_t marker = t.marker;
  const uint32_t owner = t.owner;
  std::unique_lock<std::mutex> lock(gMutex);
  Listing* l = BySerial(tag.serial);
  if (l && tag.slot < l->used && tag.version <= l->versions.size()) {
    const ListEntry& e = l->entries[tag.slot];
    const ORVA_SCHED_TASK* src = tag.version ? l->versions[tag.version - 1] : e.full;
    if (src) {
      memcpy(&t, src, sizeof(t));
    } else {
      memset(&t, 0, sizeof(t));
      EntryToRecord(e, t);
      lock.unlock();  // the store is read without the lock
      LoadUnlisted(tag.id, t);
    }
  } else {
    // The listing is gone: the store has the task.
    lock.unlock();
    std::unique_ptr<ORVA_SCHED_TASK, decltype(&free)> tmp(NewRecord(), &free);
    int found;
    if (tListingDb) {
      found = ReadTask(tListingDb, tag.id, tmp.get());
    } else {
      Conn conn;
      found = conn.db() ? ReadTask(conn.db(), tag.id, tmp.get()) : -1;
    }
    if (found != 1) {
      ORVA_LOG(LOG_WARNING, "task [%ld] of a freed listing is gone: its copy reads empty", static_cast<long>(tag.id));
      memset(tmp.get(), 0, sizeof(ORVA_SCHED_TASK));
      tmp->id = tag.id;
      tmp->saved = 1;
    }
    memcpy(&t, tmp.get(), sizeof(t));
  }
  t.next = next;
  t.marker = marker;
  t.owner = owner;
}

// A new record for slot `t` of `l`, written from now on; copies taken before keep
// reading what they copied. Caller holds gMutex.
void NewVersion(Listing* l, ORVA_SCHED_TASK& t, Tag tag, ORVA_SCHED_TASK* v) {
  l->versions.push_back(v);
  tag.version = static_cast<uint32_t>(l->versions.size());
  WriteTag(&t, tag);
}

}  // namespace

Source Read(const ORVA_SCHED_TASK& t) {
  Tag tag;
  if (!Tagged(t, &tag)) return {nullptr, &t};
  if (Listing* l = tBuilding; l && tag.serial == l->serial && tag.slot < l->used && l->Slot(tag.slot) == &t &&
                              tag.version == 0) {
    return {&l->entries[tag.slot], nullptr};  // the filter reading a slot
  }
  {
    std::lock_guard<std::mutex> lock(gMutex);
    if (Listing* l = SlotListing(t, tag)) {
      if (tag.version) return {nullptr, l->versions[tag.version - 1]};
      return {&l->entries[tag.slot], nullptr};
    }
  }
  FillCopy(const_cast<ORVA_SCHED_TASK&>(t), tag);
  return {nullptr, &t};
}

const ORVA_SCHED_TASK& Full(const ORVA_SCHED_TASK& t) {
  const Source s = Read(t);
  if (s.full) return *s.full;
  // A slot as listed: its full record is built once, outside the lock (it reads the
  // store). The slot is the caller's, so its listing lives on meanwhile.
  ListEntry* e = const_cast<ListEntry*>(s.hot);
  std::unique_lock<std::mutex> lock(gMutex);
  if (!e->full) {
    ORVA_SCHED_TASK* rec = NewRecord();
    EntryToRecord(*e, *rec);
    rec->marker = t.marker;
    rec->owner = t.owner;
    lock.unlock();
    LoadUnlisted(rec->id, *rec);
    lock.lock();
    if (e->full) {
      free(rec);  // another thread was first
    } else {
      e->full = rec;
    }
  }
  return *e->full;
}

ORVA_SCHED_TASK& Writable(ORVA_SCHED_TASK& t) {
  Tag tag;
  if (!Tagged(t, &tag)) return t;
  const ORVA_SCHED_TASK& src = Full(t);  // a copy is filled in place, and is then itself
  if (&src == &t) return t;
  ORVA_SCHED_TASK* v = static_cast<ORVA_SCHED_TASK*>(malloc(sizeof(ORVA_SCHED_TASK)));
  if (!v) abort();
  memcpy(v, &src, sizeof(*v));
  v->marker = t.marker;
  v->owner = t.owner;
  std::lock_guard<std::mutex> lock(gMutex);
  NewVersion(SlotListing(t, tag), t, tag, v);
  return *v;
}

void Assign(ORVA_SCHED_TASK& t, const ORVA_SCHED_TASK& from, bool keepNext) {
  Tag tag;
  if (Tagged(t, &tag)) {
    std::lock_guard<std::mutex> lock(gMutex);
    if (Listing* l = SlotListing(t, tag)) {
      ORVA_SCHED_TASK* v = static_cast<ORVA_SCHED_TASK*>(malloc(sizeof(ORVA_SCHED_TASK)));
      if (!v) abort();
      memcpy(v, &from, sizeof(*v));
      NewVersion(l, t, tag, v);
      t.marker = from.marker;
      t.owner = from.owner;
      if (!keepNext) t.next = from.next;
      return;
    }
  }
  ORVA_SCHED_TASK* const next = t.next;
  memcpy(&t, &from, sizeof(t));
  if (keepNext) t.next = next;
}

Listing* ListingNew(size_t capacity, sqlite3* db) {
  capacity = std::max<size_t>(capacity, 1);
  // Slack after the last slot: a record read whole from any slot stays inside.
  const size_t baseBytes = capacity * kSlot + sizeof(ORVA_SCHED_TASK);
  char* base = static_cast<char*>(Map(baseBytes));
  ListEntry* entries = static_cast<ListEntry*>(Map(capacity * sizeof(ListEntry)));
  if (!base || !entries) {
    ORVA_LOG(LOG_ERR, "cannot map a listing of %zu tasks: %m", capacity);
    if (base) Unmap(base, baseBytes);
    if (entries) Unmap(entries, capacity * sizeof(ListEntry));
    SCHED_ERR(KELC_ERR_OUT_OF_MEMORY);
    return nullptr;
  }
  Listing* l = new Listing;
  l->serial = NextSerial();
  l->base = base;
  l->baseBytes = baseBytes;
  l->capacity = capacity;
  l->entries = entries;
  tListingDb = db;
  tBuilding = l;
  std::lock_guard<std::mutex> lock(gMutex);
  gListings.push_back(l);
  return l;
}

ORVA_SCHED_TASK* ListingAdd(Listing* l, sqlite3_stmt* st) {
  size_t slot;
  if (l->spare) {
    l->spare = false;
    slot = l->used - 1;
    free(l->entries[slot].full);
    memset(l->Slot(slot), 0, kSlot);
  } else if (l->used == l->capacity) {
    return nullptr;
  } else {
    slot = l->used++;
  }
  ListEntry& e = l->entries[slot];
  e = ListEntry{};
  ORVA_SCHED_TASK* t = l->Slot(slot);
  RowToEntry(st, l, e, *t);
  WriteTag(t, Tag{kMagic, static_cast<uint32_t>(slot), 0, 0, l->serial, e.id});
  return t;
}

const char* ListingText(Listing* l, const char* text, size_t len) {
  if (len == 0) return "";
  if (l->chunkLeft < len + 1) {
    // Texts are at most a few KiB: a new chunk leaves little of the last one unused.
    char* c = static_cast<char*>(Map(kChunk));
    if (!c) abort();
    l->chunks.emplace_back(c, kChunk);
    l->chunkLeft = kChunk;
  }
  char* p = l->chunks.back().first + (kChunk - l->chunkLeft);
  l->chunkLeft -= len + 1;
  memcpy(p, text, len);
  p[len] = '\0';
  return p;
}

void ListingRefuse(Listing* l) { l->spare = true; }

void ListingKeep(Listing* l) { ++l->live; }

void ListingDone(Listing* l) {
  tListingDb = nullptr;
  tBuilding = nullptr;
  std::lock_guard<std::mutex> lock(gMutex);
  if (l->spare) {
    l->spare = false;
    --l->used;
    free(l->entries[l->used].full);
    l->entries[l->used].full = nullptr;
  }
  if (l->live == 0) Destroy(l);
}

namespace {

// Frees `t`; `last` is the listing of the record freed before (slots come in runs).
Listing* FreeLocked(ORVA_SCHED_TASK* t, Listing* last) {
  Listing* owner = last && last->Holds(t) ? last : nullptr;
  for (size_t i = 0; !owner && i < gListings.size(); ++i) {
    if (gListings[i]->Holds(t)) owner = gListings[i];
  }
  if (!owner) {
    free(t);  // a record the caller allocated (and maybe linked in)
    return last;
  }
  if (--owner->live == 0) {
    Destroy(owner);
    return nullptr;
  }
  return owner;
}

}  // namespace

void ListingFreeOne(ORVA_SCHED_TASK* t) {
  if (!t) return;
  std::lock_guard<std::mutex> lock(gMutex);
  FreeLocked(t, nullptr);
}

void ListingFreeChain(ORVA_SCHED_TASK* t) {
  std::lock_guard<std::mutex> lock(gMutex);
  Listing* last = nullptr;
  while (t) {
    ORVA_SCHED_TASK* next = t->next;
    last = FreeLocked(t, last);
    t = next;
  }
}

}  // namespace orva_sched
