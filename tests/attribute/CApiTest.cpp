// The C boundary, as a ctypes module or a plug-in uses it. Under ASan a
// reference counted once too often or too rarely shows up as a leak or a
// use after free.
#include <gtest/gtest.h>

#include <cstring>

#include "XoAttribute/Attribute.h"
#include "XoAttribute/XoAttributeC.h"

TEST(CApi, NullHandlesAreHarmless) {
  XoAttributeRetain(nullptr);
  XoAttributeRelease(nullptr);
  EXPECT_EQ(XoAttributeGetType(nullptr), kXoAttributeTypeInvalid);
  EXPECT_EQ(XoAttributeGetNumberOfValues(nullptr), 0u);
  EXPECT_EQ(XoAttributeGetTupleSize(nullptr), 0u);
  EXPECT_EQ(XoAttributeGetIntValues(nullptr), nullptr);
  EXPECT_EQ(XoAttributeGetStringValue(nullptr, 0), nullptr);
  EXPECT_EQ(XoAttributeGetNumberOfChildren(nullptr), 0u);
  EXPECT_EQ(XoAttributeGetChildName(nullptr, 0), nullptr);
  EXPECT_EQ(XoAttributeGetChildByName(nullptr, "a"), nullptr);
  EXPECT_EQ(XoAttributeGetXML(nullptr), nullptr);
  size_t length = 99;
  EXPECT_EQ(XoAttributeGetBinary(nullptr, &length), nullptr);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(XoAttributeParseBinary(nullptr, 0), nullptr);
  XoAttributeFreeText(nullptr);
  EXPECT_EQ(XoAttributeEquals(nullptr, nullptr), 1);
  XoGroupBuilderSet(nullptr, "a", nullptr, 1);
  XoGroupBuilderUpdate(nullptr, nullptr);
  XoGroupBuilderDel(nullptr, "a");
  XoGroupBuilderSetGroupInherit(nullptr, 0);
  EXPECT_EQ(XoGroupBuilderBuild(nullptr, 0), nullptr);
  XoGroupBuilderDestroy(nullptr);
}

// The C++ constructors make their values through the same checks.
TEST(CApi, CreateAndReadEveryType) {
  const int32_t ints[] = {1, 2, 3, 4};
  const float floats[] = {0.5f};
  const double doubles[] = {1.25, 2.5};
  const char* strings[] = {"a", "bc"};

  XoAttributeStruct* n = XoAttributeCreateNull();
  XoAttributeStruct* i = XoAttributeCreateInt(ints, 4, 2);
  XoAttributeStruct* f = XoAttributeCreateFloat(floats, 1, 1);
  XoAttributeStruct* d = XoAttributeCreateDouble(doubles, 2, 1);
  XoAttributeStruct* s = XoAttributeCreateString(strings, 2, 1);
  EXPECT_EQ(XoAttributeGetType(n), kXoAttributeTypeNull);
  EXPECT_EQ(XoAttributeGetType(i), kXoAttributeTypeInt);
  EXPECT_EQ(XoAttributeGetTupleSize(i), 2u);
  EXPECT_EQ(XoAttributeGetIntValues(i)[3], 4);
  EXPECT_EQ(XoAttributeGetFloatValues(f)[0], 0.5f);
  EXPECT_EQ(XoAttributeGetDoubleValues(d)[1], 2.5);
  EXPECT_EQ(XoAttributeGetFloatValues(i), nullptr) << "wrong type";
  EXPECT_STREQ(XoAttributeGetStringValue(s, 1), "bc");
  EXPECT_EQ(XoAttributeGetStringValue(s, 2), nullptr);
  EXPECT_EQ(XoAttributeGetNumberOfValues(s), 2u);

  const char* withNul[] = {"a\0b"};
  const size_t lengths[] = {3};
  XoAttributeStruct* z = XoAttributeCreateStringWithLengths(withNul, lengths, 1, 1);
  EXPECT_EQ(XoAttributeGetStringLength(z, 0), 3u);
  EXPECT_EQ(std::memcmp(XoAttributeGetStringValue(z, 0), "a\0b", 4), 0);

  EXPECT_EQ(XoAttributeCreateInt(ints, 4, 3), nullptr);
  EXPECT_EQ(XoAttributeCreateInt(ints, 4, 0), nullptr);
  EXPECT_EQ(XoAttributeCreateDouble(nullptr, 1, 1), nullptr);
  const char* withNull[] = {"a", nullptr};
  EXPECT_EQ(XoAttributeCreateString(withNull, 2, 1), nullptr);
  EXPECT_EQ(XoAttributeCreateString(strings, 2, 3), nullptr);
  XoAttributeStruct* empty = XoAttributeCreateFloat(nullptr, 0, 1);
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(XoAttributeGetFloatValues(empty), nullptr);

  for (XoAttributeStruct* a : {n, i, f, d, s, z, empty}) XoAttributeRelease(a);
}

TEST(CApi, BuilderOwnershipAndBorrowedChildren) {
  XoGroupBuilderStruct* b = XoGroupBuilderCreate();
  const int32_t one = 1, two = 2;
  XoAttributeStruct* a = XoAttributeCreateInt(&one, 1, 1);
  XoGroupBuilderSet(b, "x.a", a, 0);
  XoGroupBuilderSet(b, "y", a, 1);
  XoAttributeRelease(a);  // the builder keeps its own references

  XoAttributeStruct* kept = XoGroupBuilderBuild(b, kXoGroupBuilderBuildAndRetain);
  XoAttributeStruct* child = XoAttributeGetChildByName(kept, "x.a");
  EXPECT_EQ(XoAttributeGetIntValues(child)[0], 1);
  EXPECT_EQ(XoAttributeGetGroupInherit(XoAttributeGetChildByName(kept, "x")), 0);
  EXPECT_STREQ(XoAttributeGetChildName(kept, 1), "y");
  EXPECT_EQ(XoAttributeGetChildByIndex(kept, 1), XoAttributeGetChildByName(kept, "y"));

  XoAttributeStruct* b2 = XoAttributeCreateInt(&two, 1, 1);
  XoGroupBuilderStruct* u = XoGroupBuilderCreate();
  XoGroupBuilderSet(u, "y", b2, 1);
  XoAttributeStruct* update = XoGroupBuilderBuild(u, kXoGroupBuilderBuildAndFlush);
  XoGroupBuilderUpdate(b, update);
  XoGroupBuilderDel(b, "x");
  XoGroupBuilderSetGroupInherit(b, 0);
  XoAttributeStruct* flushed = XoGroupBuilderBuild(b, kXoGroupBuilderBuildAndFlush);
  EXPECT_EQ(XoAttributeGetNumberOfChildren(flushed), 1u);
  EXPECT_EQ(XoAttributeGetIntValues(XoAttributeGetChildByName(flushed, "y"))[0], 2);
  EXPECT_EQ(XoAttributeGetGroupInherit(flushed), 0);
  XoAttributeStruct* empty = XoGroupBuilderBuild(b, 0);
  EXPECT_EQ(XoAttributeGetNumberOfChildren(empty), 0u);
  EXPECT_EQ(XoAttributeGetGroupInherit(empty), 1);

  // A child kept beyond its group's life is retained first.
  XoAttributeRetain(child);
  XoAttributeRelease(kept);
  EXPECT_EQ(XoAttributeGetIntValues(child)[0], 1);
  XoAttributeRelease(child);

  for (XoAttributeStruct* h : {b2, update, flushed, empty}) XoAttributeRelease(h);
  XoGroupBuilderDestroy(u);
  XoGroupBuilderDestroy(b);  // still holding nothing after the flush
}

