// The layout of an image's memory file and the hand-over of its passes
// between the one writer (the renderer, through the image service) and the
// one reader (the live session's sender, or a controller on this machine that
// maps the file and takes passes itself). Three buffers of `slotBytes` bytes
// each, then one page of header:
//
//   offset 0   u64 exchange: bits 0-1 the buffer of the newest finished pass,
//              bit 2 that pass has not been taken, bit 3 the reader sleeps
//              and wants its doorbell rung at the next finished pass
//   offset 8   u64 the buffer the reader holds (written by the reader only)
//   offset 64 + 32 * i   u64 pass, u64 samples, u64 scene state of buffer i
//              (written by the writer before it hands buffer i over)
//
// The writer fills a buffer of its own, then swaps it for the one in the
// exchange word; the reader swaps the one it holds for the one in the word.
// Neither ever waits for the other, and each buffer is held by exactly one
// of writer, word and reader.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace XoImageOut {

const unsigned kRegionSlots = 3;
const size_t kRegionHeaderBytes = 4096;
const uint64_t kExchangeSlot = 3;
const uint64_t kExchangeFresh = 4;
const uint64_t kExchangeReaderSleeps = 8;

struct RegionSlotTags {
  uint64_t pass;
  uint64_t samples;
  uint64_t sceneState;
  uint64_t unused;
};

struct RegionHeader {
  std::atomic<uint64_t> exchange;
  std::atomic<uint64_t> readerSlot;
  uint64_t unused[6];
  RegionSlotTags slots[kRegionSlots];
};
static_assert(sizeof(RegionHeader) <= kRegionHeaderBytes, "the header fits its page");
static_assert(std::atomic<uint64_t>::is_always_lock_free, "shared between processes");

// Where the header lies in a file of three buffers of `slotBytes` each.
inline size_t regionHeaderOffset(size_t slotBytes) { return kRegionSlots * slotBytes; }
inline size_t regionFileBytes(size_t slotBytes) {
  return regionHeaderOffset(slotBytes) + kRegionHeaderBytes;
}

// The reader's side. The header may have been written by a process that is
// not to be trusted: every buffer index is checked before it is used.
class RegionReader {
 public:
  explicit RegionReader(RegionHeader* header) : header(header) {}

  // Takes the newest finished pass if it has not been taken: its buffer
  // (below kRegionSlots) and tags. The buffer stays the reader's until the
  // next take. False when there is none, or (with `error`) when the header
  // names a buffer that does not exist.
  bool take(unsigned& slot, RegionSlotTags& tags, const char*& error) {
    error = nullptr;
    if (!(header->exchange.load(std::memory_order_acquire) & kExchangeFresh)) return false;
    const uint64_t held = header->readerSlot.load(std::memory_order_relaxed);
    if (held >= kRegionSlots) {
      error = "names a buffer the reader holds that does not exist";
      return false;
    }
    const uint64_t old = header->exchange.exchange(held, std::memory_order_acq_rel);
    const uint64_t newest = old & kExchangeSlot;
    if (newest >= kRegionSlots || newest == held) {
      error = "hands over a buffer that does not exist or is the reader's";
      return false;
    }
    header->readerSlot.store(newest, std::memory_order_relaxed);
    slot = unsigned(newest);
    tags = header->slots[newest];
    return true;
  }

  // Before sleeping: asks to be woken by the doorbell at the next finished
  // pass. False when a pass is waiting already (take it instead of sleeping).
  bool sleep() {
    uint64_t word = header->exchange.load(std::memory_order_acquire);
    for (;;) {
      if (word & kExchangeFresh) return false;
      if (word & kExchangeReaderSleeps) return true;
      if (header->exchange.compare_exchange_weak(word, word | kExchangeReaderSleeps,
                                                 std::memory_order_acq_rel))
        return true;
    }
  }

 private:
  RegionHeader* header;
};

}  // namespace XoImageOut
