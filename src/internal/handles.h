// Owners of what the base library and the C library hand out: each gives it back when it goes out of scope.
#pragma once

#include <dirent.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "qmx_bits.h"
#include "qmx_bytes.h"
#include "qmx_file.h"
#include "qmx_list.h"
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
inline void close_directory(DIR* directory) { closedir(directory); }  // its own type has attributes

template <class T>
using Block = std::unique_ptr<T, Releaser<free_block>>;  // from QMX_Malloc or QMX_Calloc
using FileStream = std::unique_ptr<FILE, Releaser<QMX_FileClose>>;
using BitHandle = std::unique_ptr<QMXBit, Releaser<QMXBitClose>>;
using ByteHandle = std::unique_ptr<QMXByte, Releaser<QMXByte_Close>>;
using ReaderHandle = std::unique_ptr<QMXReader, Releaser<QMXReaderClose>>;
using Node = std::unique_ptr<QMXListNode, Releaser<QMX_List_Node_delete>>;
using Directory = std::unique_ptr<DIR, Releaser<close_directory>>;
using StdFile = std::unique_ptr<FILE, Releaser<std::fclose>>;  // from fopen
using Pipe = std::unique_ptr<FILE, Releaser<pclose>>;          // from popen
using CString = std::unique_ptr<char, Releaser<std::free>>;    // from strdup

}  // namespace qmxutil

// A block from the base library, with the place that asks for it. A helper that exported functions share asks
// in the name of its caller, with NEW_BLOCK_AS.
#define NEW_BLOCK_AS(function, T, size, fill) \
  (::qmxutil::Block<T>(static_cast<T*>(QMX_Malloc(size, 0, fill, __FILE_NAME__, __LINE__, function))))
#define NEW_BLOCK(T, size, fill) NEW_BLOCK_AS(__func__, T, size, fill)
