#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "BlobWriter.h"
#include "SampleAttributes.h"
#include "XoAttribute/Attribute.h"

using namespace Arbolite3::internal::XoAttribute;

namespace {

bool parses(const std::string& bytes) {
  return Attribute::parseBinary(bytes.data(), bytes.size()).isValid();
}

Attribute roundTrip(const Attribute& attr) {
  const std::string bytes = attr.getBinary();
  EXPECT_FALSE(bytes.empty());
  return Attribute::parseBinary(bytes.data(), bytes.size());
}

// depth groups, each holding the next as "g"; the innermost is empty.
std::string nested(size_t depth) {
  BlobWriter w;
  for (size_t i = 1; i < depth; ++i) w.group(1).text("g");
  w.group(0);
  return w.str();
}

// A copy that ends where a readable page ends, the next page unreadable: a
// read past its end faults in every build, not only under ASan.
class GuardedCopy {
 public:
  explicit GuardedCopy(const std::string& bytes) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    size = (bytes.size() / page + 2) * page;
    base = static_cast<char*>(
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(base + size - page, page, PROT_NONE);
    data = base + size - page - bytes.size();
    std::memcpy(data, bytes.data(), bytes.size());
  }
  ~GuardedCopy() { munmap(base, size); }
  char* data;

 private:
  char* base;
  size_t size;
};

}  // namespace

TEST(BinaryMalformed, HandMadeBlobsAreRefused) {
  const uint64_t kHuge = UINT64_C(1) << 62;  // times 4 or 8 wraps around
  struct Case {
    const char* what;
    std::string bytes;
  };
  const std::vector<Case> cases = {
      {"empty", ""},
      {"short header", "XOAB\x01"},
      {"header only", BlobWriter().str()},
      {"wrong magic", BlobWriter(false).raw("XOAC").u16(1).u16(0).null().str()},
      {"version 0", BlobWriter(false).raw("XOAB").u16(0).u16(0).null().str()},
      {"version 2", BlobWriter(false).raw("XOAB").u16(2).u16(0).null().str()},
      {"reserved bits", BlobWriter(false).raw("XOAB").u16(1).u16(1).null().str()},
      {"type 6", BlobWriter().u8(6).str()},
      {"type 255", BlobWriter().u8(255).str()},
      {"tuple size 0", BlobWriter().u8(1).u32(0).u64(0).str()},
      {"count not a multiple of the tuple", BlobWriter().u8(1).u32(2).u64(3).u32(1).u32(2).u32(3).str()},
      {"count beyond the buffer", BlobWriter().u8(1).u32(1).u64(3).u32(1).u32(2).str()},
      {"int count that overflows", BlobWriter().u8(1).u32(1).u64(kHuge).str()},
      {"double count that overflows", BlobWriter().u8(3).u32(1).u64(kHuge).str()},
      {"count of all ones", BlobWriter().u8(2).u32(1).u64(UINT64_MAX).str()},
      {"string count beyond the buffer", BlobWriter().u8(4).u32(1).u64(kHuge).text("a").str()},
      {"string length beyond the buffer", BlobWriter().u8(4).u32(1).u64(1).u32(5).raw("abcd").str()},
      {"string length of all ones", BlobWriter().u8(4).u32(1).u64(1).u32(UINT32_MAX).raw("abcd").str()},
      {"child count beyond the buffer", BlobWriter().group(2).text("a").null().str()},
      {"child count of all ones", BlobWriter().group(UINT32_MAX).text("a").null().str()},
      {"unknown group flag", BlobWriter().u8(5).u8(2).u32(0).str()},
      {"empty child name", BlobWriter().group(1).text("").null().str()},
      {"dotted child name", BlobWriter().group(1).text("a.b").null().str()},
      {"NUL in child name", BlobWriter().group(1).text(std::string("a\0b", 3)).null().str()},
      {"name length beyond the buffer", BlobWriter().group(1).u32(100).raw("ab").null().str()},
      {"duplicate names", BlobWriter().group(2).text("a").null().text("a").null().str()},
      {"duplicate names in a large group", [] {
         BlobWriter w;
         w.group(20);
         for (int i = 0; i < 19; ++i) w.text("n" + std::to_string(i)).null();
         return w.text("n7").null().str();
       }()},
      {"trailing byte", BlobWriter().null().u8(0).str()},
      {"trailing bytes after a group", BlobWriter().group(1).text("a").ints({1}).u32(0).str()},
      {"two roots", BlobWriter().null().null().str()},
      {"nesting beyond the cap", nested(257)},
      {"very deep nesting", nested(100000)},
  };
  for (const Case& c : cases) EXPECT_FALSE(parses(c.bytes)) << c.what;
}

TEST(BinaryMalformed, ValidHandMadeBlobsAreAccepted) {
  // The counterparts of the table above, so that it fails for the right reason.
  EXPECT_TRUE(parses(BlobWriter().null().str()));
  EXPECT_TRUE(parses(BlobWriter().ints({1, 2, 3}).str()));
  EXPECT_TRUE(parses(BlobWriter().u8(1).u32(2).u64(0).str()));
  EXPECT_TRUE(parses(BlobWriter().u8(4).u32(1).u64(1).u32(4).raw("abcd").str()));
  EXPECT_TRUE(parses(BlobWriter().group(2).text("a").null().text("b").null().str()));
  EXPECT_TRUE(parses(BlobWriter().u8(5).u8(0).u32(0).str()));
  EXPECT_TRUE(parses(nested(256)));
}

// Each encoding ends in a different kind of value, so that a bounds check
// off by one at the end of the input is caught whichever read it guards.
TEST(BinaryMalformed, EveryTruncationIsRefusedAndEveryExtensionToo) {
  const std::vector<std::string> encodings = {
      sample::everyType().getBinary(),
      BlobWriter().ints({1, 2, 3}).str(),
      BlobWriter().u8(3).u32(1).u64(1).u64(0).str(),
      BlobWriter().u8(4).u32(1).u64(2).text("ab").text("cd").str(),
      BlobWriter().group(1).text("name").null().str(),
      BlobWriter().group(1).text("g").group(0).str(),
  };
  for (const std::string& full : encodings) {
    ASSERT_TRUE(parses(full));
    for (size_t length = 0; length < full.size(); ++length) {
      // Within the full encoding, a read past `length` finds the real next
      // bytes and would complete the value; before a guard page, it faults.
      EXPECT_FALSE(Attribute::parseBinary(full.data(), length).isValid()) << "length " << length;
      const GuardedCopy guarded(full.substr(0, length));
      EXPECT_FALSE(Attribute::parseBinary(guarded.data, length).isValid()) << "length " << length;
    }
    EXPECT_FALSE(parses(full + '\0'));
  }
  EXPECT_FALSE(Attribute::parseBinary(nullptr, 10).isValid());
}

TEST(BinaryRoundTrip, TreeWithEveryTypeAndAwkwardValues) {
  GroupAttribute tree = sample::everyType();
  GroupAttribute back(roundTrip(tree));
  ASSERT_TRUE(back.isValid());
  EXPECT_EQ(back, tree);
  EXPECT_EQ(back.getXML(), tree.getXML());
  EXPECT_FALSE(GroupAttribute(back.getChildByName("nested")).getGroupInherit());
  EXPECT_FALSE(GroupAttribute(back.getChildByName("nested.noInherit")).getGroupInherit());
  EXPECT_TRUE(GroupAttribute(back.getChildByName("nested.empty")).getGroupInherit());
  EXPECT_EQ(StringAttribute(back.getChildByName("strings")).getValue(), std::string("nul\0inside", 10));
  EXPECT_EQ(IntAttribute(back.getChildByName("ints")).getTupleSize(), 3u);
}

TEST(BinaryRoundTrip, NestingUpToTheCapAndNoFurther) {
  // 256 nested groups round-trip; one more cannot be written.
  Attribute inner = IntAttribute(1);
  for (int depth = 1; depth <= 256; ++depth) inner = GroupBuilder().set("g", inner).build();
  EXPECT_EQ(roundTrip(inner), inner);
  EXPECT_EQ(GroupBuilder().set("g", inner).build().getBinary(), "");
}
