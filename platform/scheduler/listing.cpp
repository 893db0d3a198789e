// Listings: the records of one ORVASchedTaskListGet live in one anonymous mapping. A
// long action waits beside them, command and app arguments stay in the store, until a
// getter (or a save) needs them.
//
// A listing of 10,000 tasks is 10,000 records of 16 KiB, but a listing reads only the
// first few hundred bytes of each. Records start on a page boundary, so that what a
// listing writes (the link, ids, flags, schedule, the short texts and a short action)
// lies in each record's first page; the mapping's other pages stay untouched, are never
// resident, and go back to the system at once when the listing's last record is freed.
#include <stddef.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "internal.h"

namespace orva_sched {

namespace {

constexpr size_t kPage = 4096;
constexpr size_t kStride = (sizeof(ORVA_SCHED_TASK) + kPage - 1) / kPage * kPage;

}  // namespace

struct Aside {
  uint32_t start = 0;              // where the slot's texts begin in Listing::texts
  uint32_t offset[3] = {0, 0, 0};  // into Listing::texts, per lazy field
  uint32_t length[3] = {0, 0, 0};
};

struct Listing {
  char* base = nullptr;
  size_t bytes = 0;
  size_t capacity = 0;
  size_t used = 0;      // slots handed out
  size_t live = 0;      // records kept and not yet freed
  bool spare = false;   // the last slot was refused by the filter and may be reused
  std::vector<int64_t> ids;   // per slot, ascending as read
  std::vector<Aside> aside;   // per slot
  std::string texts;          // the texts kept aside, back to back

  bool Holds(const void* p) const {
    const char* c = static_cast<const char*>(p);
    return c >= base && c < base + capacity * kStride;
  }
  size_t SlotOf(const void* p) const { return static_cast<size_t>(static_cast<const char*>(p) - base) / kStride; }
};

namespace {

std::mutex gMutex;
thread_local sqlite3* tListingDb = nullptr;
std::vector<Listing*> gListings;  // live listings, oldest first

int FieldIndex(uint8_t bit) { return bit == kLazyAction ? 0 : (bit == kLazyCommand ? 1 : 2); }

char* Field(ORVA_SCHED_TASK& t, uint8_t bit, size_t* size) {
  switch (bit) {
    case kLazyAction:
      *size = sizeof(t.action);
      return t.action;
    case kLazyCommand:
      *size = sizeof(t.command);
      return t.command;
    default:
      *size = sizeof(t.app_args);
      return t.app_args;
  }
}

void Destroy(Listing* l) {
  gListings.erase(std::find(gListings.begin(), gListings.end(), l));
  munmap(l->base, l->bytes);
  delete l;
}

// The listing and slot whose text serves `t`: the record itself, or else (a copy of
// a listed record) the newest live listing that holds its id. Caller holds gMutex.
bool FindAside(const ORVA_SCHED_TASK& t, Listing** listing, size_t* slot) {
  for (auto it = gListings.rbegin(); it != gListings.rend(); ++it) {
    Listing* l = *it;
    if (l->Holds(&t)) {
      *listing = l;
      *slot = l->SlotOf(&t);
      return *slot < l->used && l->ids[*slot] == t.id;
    }
  }
  for (auto it = gListings.rbegin(); it != gListings.rend(); ++it) {
    Listing* l = *it;
    auto end = l->ids.begin() + static_cast<ptrdiff_t>(l->used);
    auto found = std::lower_bound(l->ids.begin(), end, t.id);
    if (found != end && *found == t.id) {
      *listing = l;
      *slot = static_cast<size_t>(found - l->ids.begin());
      return true;
    }
  }
  return false;
}

}  // namespace

Listing* ListingNew(size_t capacity) {
  capacity = std::max<size_t>(capacity, 1);
  const size_t bytes = capacity * kStride;
  void* base = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (base == MAP_FAILED) {
    syslog(LOG_ERR, "%s:%d cannot map %zu records: %m", __FILE_NAME__, __LINE__, capacity);
    SCHED_ERR(KELC_ERR_OUT_OF_MEMORY);
    return nullptr;
  }
  // A huge page would make a whole 2 MiB resident for the first page of one record.
  madvise(base, bytes, MADV_NOHUGEPAGE);
  Listing* l = new Listing;
  l->base = static_cast<char*>(base);
  l->bytes = bytes;
  l->capacity = capacity;
  l->ids.resize(capacity);
  l->aside.resize(capacity);
  std::lock_guard<std::mutex> lock(gMutex);
  gListings.push_back(l);
  return l;
}

// Listings under construction are already registered (a filter may call a getter), so
// changes to them are made under the lock too.
ORVA_SCHED_TASK* ListingTake(Listing* l, int64_t id) {
  std::lock_guard<std::mutex> lock(gMutex);
  if (l->spare) {
    l->spare = false;
    --l->used;
    ORVA_SCHED_TASK* t = reinterpret_cast<ORVA_SCHED_TASK*>(l->base + l->used * kStride);
    memset(t, 0, sizeof(*t));  // the filter's getters may have written anywhere in it
    l->texts.resize(l->aside[l->used].start);
  } else if (l->used == l->capacity) {
    return nullptr;
  }
  const size_t slot = l->used++;
  l->ids[slot] = id;
  l->aside[slot] = Aside{};
  l->aside[slot].start = static_cast<uint32_t>(l->texts.size());
  return reinterpret_cast<ORVA_SCHED_TASK*>(l->base + slot * kStride);
}

void ListingSetAside(Listing* l, ORVA_SCHED_TASK* t, uint8_t bit, const char* text, size_t len) {
  std::lock_guard<std::mutex> lock(gMutex);
  Aside& a = l->aside[l->SlotOf(t)];
  const int i = FieldIndex(bit);
  a.offset[i] = static_cast<uint32_t>(l->texts.size());
  a.length[i] = static_cast<uint32_t>(len);
  l->texts.append(text, len);
  l->texts.push_back('\0');
  t->lazy |= bit;
}

size_t ListingInPlaceMax(uint8_t bit) {
  // A text that ends within the record's first page costs nothing to write there.
  return bit == kLazyAction ? kPage - offsetof(ORVA_SCHED_TASK, action) - 1 : 0;
}

void ListingRefuse(Listing* l) {
  std::lock_guard<std::mutex> lock(gMutex);
  l->spare = true;
}

void ListingKeep(Listing* l) {
  std::lock_guard<std::mutex> lock(gMutex);
  ++l->live;
}

void ListingDone(Listing* l) {
  std::lock_guard<std::mutex> lock(gMutex);
  if (l->spare) {
    l->spare = false;
    --l->used;
  }
  if (l->live == 0) {
    Destroy(l);
  }
}

bool ListingRelease(ORVA_SCHED_TASK* t) {
  std::lock_guard<std::mutex> lock(gMutex);
  for (Listing* l : gListings) {
    if (l->Holds(t)) {
      if (--l->live == 0) Destroy(l);
      return true;
    }
  }
  return false;
}

void ListingFreeChain(ORVA_SCHED_TASK* t) {
  std::lock_guard<std::mutex> lock(gMutex);
  Listing* last = nullptr;
  while (t) {
    ORVA_SCHED_TASK* next = t->next;
    Listing* owner = last && last->Holds(t) ? last : nullptr;
    for (size_t i = 0; !owner && i < gListings.size(); ++i) {
      if (gListings[i]->Holds(t)) owner = gListings[i];
    }
    if (!owner) {
      free(t);  // a record the caller allocated and linked in
    } else if (--owner->live == 0) {
      Destroy(owner);
      last = nullptr;
    } else {
      last = owner;
    }
    t = next;
  }
}

const char* LazyText(const ORVA_SCHED_TASK& task, uint8_t bit) {
  ORVA_SCHED_TASK& t = const_cast<ORVA_SCHED_TASK&>(task);
  size_t size = 0;
  char* field = Field(t, bit, &size);
  if (!(t.lazy & bit)) return field;
  {
    std::lock_guard<std::mutex> lock(gMutex);
    Listing* l = nullptr;
    size_t slot = 0;
    if (FindAside(t, &l, &slot) && l->aside[slot].length[FieldIndex(bit)] > 0) {
      const Aside& a = l->aside[slot];
      const int i = FieldIndex(bit);
      CopyText(field, size, l->texts.data() + a.offset[i], a.length[i]);
      t.lazy &= static_cast<uint8_t>(~bit);
      return field;
    }
  }
  // Not kept aside (command and app_args never are), or a copy that outlived its
  // listing: the store still has it.
  static const char* const kColumn[] = {"action", "command", "app_args"};
  const std::string sql = std::string("SELECT ") + kColumn[FieldIndex(bit)] + " FROM tasks WHERE id = ?";
  std::unique_ptr<Conn> conn;
  if (!tListingDb) conn = std::make_unique<Conn>();
  Stmt st(tListingDb ? tListingDb : conn->db(), sql.c_str());
  if (st.ok()) {
    st.Bind(1, t.id);
    if (st.Step() == SQLITE_ROW) {
      const std::string text = st.Text(0);
      if (!CopyText(field, size, text.data(), text.size())) {
        t.truncated |= bit == kLazyAction ? ORVA_SCHED_TRUNC_ACTION
                                          : (bit == kLazyCommand ? ORVA_SCHED_TRUNC_COMMAND : ORVA_SCHED_TRUNC_APP_ARGS);
      }
    } else {
      syslog(LOG_WARNING, "%s:%d task [%ld] is gone: its %s reads empty", __FILE_NAME__, __LINE__,
             static_cast<long>(t.id), kColumn[FieldIndex(bit)]);
    }
  }
  t.lazy &= static_cast<uint8_t>(~bit);
  return field;
}

const char* PeekText(const ORVA_SCHED_TASK& t, uint8_t bit) {
  if (t.lazy & bit) {
    std::lock_guard<std::mutex> lock(gMutex);
    Listing* l = nullptr;
    size_t slot = 0;
    if (FindAside(t, &l, &slot) && l->aside[slot].length[FieldIndex(bit)] > 0) return l->texts.data() + l->aside[slot].offset[FieldIndex(bit)];
  }
  return LazyText(t, bit);
}

ListingConnection::ListingConnection(sqlite3* db) { tListingDb = db; }
ListingConnection::~ListingConnection() { tListingDb = nullptr; }

void FillAll(ORVA_SCHED_TASK& t) {
  for (uint8_t bit : {kLazyAction, kLazyCommand, kLazyAppArgs}) LazyText(t, bit);
}

}  // namespace orva_sched
