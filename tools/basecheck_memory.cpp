// The base library's memory blocks and lists.
#include <algorithm>
#include <climits>
#include <cstring>
#include <thread>
#include <vector>

#include "basecheck.h"
#include "qmx_format.h"
#include "qmx_list.h"
#include "qmx_memory.h"

namespace basecheck {
namespace {

// ---- Memory

uint8_t* block(uint32_t size, int fill = QMX_FILL_NONE) {
  void* const made = QMX_Malloc(size, 0, fill, __FILE_NAME__, __LINE__, __func__);
  expect(made != nullptr, "no block of %u bytes", size);
  return static_cast<uint8_t*>(made);
}

void* array(int count, int size) { return QMX_Calloc(count, size, 0, __FILE_NAME__, __LINE__, __func__); }

// Used before it is given back: the next one may be the same.
void expect_zeros(uint8_t* bytes, size_t size) {
  for (size_t i = 0; i < size; ++i) expect(bytes[i] == 0, "byte %zu of %zu is 0x%02X", i, size, bytes[i]);
  std::memset(bytes, 0xA5, size);
  QMX_Free(bytes, 0);
}

void cleared_blocks() {
  for (const uint32_t size : {1u, 40u, 3000u, 300000u, 1u, 40u, 3000u, 300000u}) {
    expect_zeros(block(size, QMX_FILL_ZERO), size);
  }
}

void cleared_arrays() {
  for (const int size : {1, 40, 3000, 1, 40, 3000}) {
    auto* const made = static_cast<uint8_t*>(array(7, size));
    expect(made != nullptr, "no array of 7 x %d bytes", size);
    expect_zeros(made, static_cast<size_t>(size) * 7);
  }
}

// Blocks held together keep what each was filled with, while others come and go.
void separate_blocks() {
  std::vector<std::pair<uint8_t*, uint32_t>> held;
  for (uint32_t i = 0; i < 2000; ++i) {
    if (held.size() == 50) {
      const auto gone = held.begin() + below(50);
      const auto [bytes, size] = *gone;
      expect(std::count(bytes, bytes + size, bytes[0]) == size, "a block of %u bytes was changed", size);
      QMX_Free(bytes, 0);
      held.erase(gone);
    }
    const uint32_t size = below(i % 10 == 0 ? 100000 : 100) + 1;
    held.emplace_back(block(size), size);
    std::memset(held.back().first, static_cast<int>(i % 251), size);
  }
  for (const auto& [bytes, size] : held) QMX_Free(bytes, 0);
}

void expect_aligned(size_t alignment) {
  for (uint32_t size = 1; size < 200; ++size) {
    const auto at = reinterpret_cast<uintptr_t>(block(size));
    expect(at % alignment == 0, "a block of %u bytes lies %zu bytes after such a place", size,
           static_cast<size_t>(at % alignment));
  }
}

void aligned_for_numbers() { expect_aligned(sizeof(uint64_t)); }
void aligned_for_any_type() { expect_aligned(alignof(std::max_align_t)); }

void block_of_nothing() { QMX_Free(block(0), 0); }

void array_of_nothing() {
  for (const auto& [count, size] : {std::pair{0, 8}, {8, 0}, {0, 0}}) {
    void* const made = array(count, size);
    expect(made != nullptr, "no array of %d x %d bytes", count, size);
    QMX_Free(made, 0);
  }
}

// What is given is whole: its last byte can be written. Not given back: a sanitizer would mark all of it.
void largest_block() {
  void* const made = QMX_Malloc(UINT32_MAX, 0, QMX_FILL_NONE, __FILE_NAME__, __LINE__, __func__);
  if (made != nullptr) static_cast<volatile uint8_t*>(made)[UINT32_MAX - 1] = 1;
}

void arrays_that_cannot_be() {
  for (const auto& [count, size] : {std::pair{65536, 65536},
                                    {INT_MAX, INT_MAX},
                                    {1 << 30, 5},
                                    {-1, 8},
                                    {8, -1},
                                    {-1, 0},
                                    {0, -1},
                                    {-1, -1}}) {
    expect(array(count, size) == nullptr, "%d x %d gives an array", count, size);
  }
}

// Blocks, streams and texts of several threads at once.
bool work_of_thread(char name) {
  const std::string path(1, name);
  for (int i = 0; i < 300; ++i) {
    const uint32_t size = 100 + static_cast<uint32_t>(i);
    void* const room = QMX_Malloc(size, 0, QMX_FILL_ZERO, __FILE_NAME__, __LINE__, __func__);
    FILE* const out = QMX_FileOpen(path.c_str(), QMX_FILE_REPLACE);
    if (room == nullptr || out == nullptr) return false;
    auto* const text = static_cast<char*>(room);
    QMX_snprintf(text, size, "%-*s%c", static_cast<int>(size) - 2, "", name);
    QMX_FileWrite(out, text, size);
    QMX_FileClose(out);
    std::memset(text, 0, size);
    FILE* const in = QMX_FileOpen(path.c_str(), QMX_FILE_READ);
    if (in == nullptr || QMX_FileRead(in, text, size) != size) return false;
    QMX_FileClose(in);
    if (std::count(text, text + size, ' ') != size - 2 || text[size - 2] != name) return false;
    QMX_Free(room, 0);
  }
  return true;
}

void several_threads() {
  bool done[4] = {};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back([&, i] { done[i] = work_of_thread("abcd"[i]); });
  for (std::thread& thread : threads) thread.join();
  expect(std::count(done, done + 4, true) == 4, "what one thread wrote was not what it read");
}

// ---- Lists

struct List {
  QMXList* list;
  std::vector<QMXListNode*> model;

  List() {
    QMX_ListDestroy(QMX_ListCreate());  // the next may be this one, used
    list = QMX_ListCreate();
  }
  void add() {
    QMXListNode* const node = QMX_List_Node_new();
    expect(list != nullptr && node != nullptr, "no list or no node");
    QMX_ListAddTail(list, node);
    node->data = node;
    model.push_back(node);
  }
  void remove(size_t at, bool add_again = false) {
    QMXListNode* const node = model[at];
    QMX_ListDel(list, node);
    expect(node->data == node, "unlinking a node changed its data");
    model.erase(model.begin() + static_cast<ptrdiff_t>(at));
    if (!add_again) return QMX_List_Node_delete(node);
    QMX_ListAddTail(list, node);
    model.push_back(node);
  }
  void compare() const {
    size_t i = 0;
    for (auto* node = QMX_ListGetHead(list); node != nullptr; node = QMX_ListGetNext(list, node), ++i) {
      expect(i < model.size() && node == model[i] && node->data == node, "node %zu of %zu is another", i,
             model.size());
    }
    expect(i == model.size(), "the list ends after %zu of %zu nodes", i, model.size());
  }
};

void list_order() {
  List lists[2];
  for (int i = 0; i < 50; ++i) {
    lists[i % 3 == 0].add();
    for (const List& list : lists) list.compare();
  }
}

void list_head() {
  List list;
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < 20; ++i) list.add();
    for (int i = 0; i < 20; ++i) {
      list.remove(0);
      list.compare();
    }
  }
  QMX_ListDestroy(list.list);
}

void list_any_node() {
  List list;
  for (int step = 0; step < 2000; ++step) {
    list.model.empty() || below(2) == 0 ? list.add() : list.remove(below(list.model.size()), below(4) == 0);
    list.compare();
  }
}

void new_node() {
  for (int i = 0; i < 20; ++i) {  // one may be an earlier one, used
    QMXListNode* const node = QMX_List_Node_new();
    expect(node != nullptr && node->data == nullptr, "its data is not null");
    node->data = node;
    QMX_List_Node_delete(node);
  }
}

const Check kChecks[] = {
    {"memory", "a block asked for with QMX_FILL_ZERO is zero throughout", true,
     "records of INI files, recordings and monitors begin with rubbish", cleared_blocks},
    {"memory", "QMX_Calloc clears its array", true, "timers begin with rubbish", cleared_arrays},
    {"memory", "blocks do not overlap and keep what is in them", true, "memory is overwritten",
     separate_blocks},
    {"memory", "a block is aligned for pointers and 64-bit numbers", true, "records lie where they may not",
     aligned_for_numbers},
    {"memory", "a block is aligned for any type", false, nullptr, aligned_for_any_type},
    {"memory", "of 0 bytes there is a block too", true, "Base64 text of no bytes is taken for a failure",
     block_of_nothing},
    {"memory", "of 0 elements there is an array too", false, nullptr, array_of_nothing},
    {"memory", "the largest block is whole, or null", true, "long texts are written past their block",
     largest_block},
    {"memory", "an array too large or of negative size is null", false, nullptr, arrays_that_cannot_be},
    {"memory", "several threads can use memory, files and formatting", true,
     "calls in different threads disturb each other", several_threads},
    {"list", "nodes are walked in the order in which they were added", true,
     "the memory report lists items in another order, or not all", list_order},
    {"list", "the first node can be taken out, again and again", true,
     "QMXUTIL_UsageMemClose crashes, or does not end", list_head},
    {"list", "any node can be taken out, and added again", false, nullptr, list_any_node},
    {"list", "the data of a new node is null", false, nullptr, new_node},
};

}  // namespace

std::span<const Check> memory_checks() { return kChecks; }

}  // namespace basecheck
