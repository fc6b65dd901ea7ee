// Owners of what the base library hands out: each returns its handle when it goes out of scope.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "qmx_bits.h"
#include "qmx_bytes.h"
#include "qmx_file.h"
#include "qmx_memory.h"
#include "qmx_reader.h"

namespace qmxutil {

template <auto release>
struct Releaser {
  template <class T>
  void operator()(T* handle) const noexcept {
    release(handle);
  }
};

inline void free_block(void* block) { QMX_Free(block, 0); }

template <class T>
using Block = std::unique_ptr<T, Releaser<free_block>>;  // from QMX_Malloc or QMX_Calloc
using FileStream = std::unique_ptr<FILE, Releaser<QMX_FileClose>>;
using BitHandle = std::unique_ptr<QMXBit, Releaser<QMXBitClose>>;
using ByteHandle = std::unique_ptr<QMXByte, Releaser<QMXByte_Close>>;
using ReaderHandle = std::unique_ptr<QMXReader, Releaser<QMXReaderClose>>;
using Pipe = std::unique_ptr<FILE, Releaser<pclose>>;        // from popen
using CString = std::unique_ptr<char, Releaser<std::free>>;  // from strdup

}  // namespace qmxutil

// A block from the base library, with the place that asks for it.
#define NEW_BLOCK(T, size, fill) \
  (::qmxutil::Block<T>(static_cast<T*>(QMX_Malloc(size, 0, fill, __FILE_NAME__, __LINE__, __func__))))
