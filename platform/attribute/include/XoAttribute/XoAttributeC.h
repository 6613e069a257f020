/* C boundary of the attribute family: opaque, reference-counted handles that
 * renderer plug-ins receive and may keep (retain) beyond a call. */
#ifndef XOATTRIBUTE_XOATTRIBUTEC_H
#define XOATTRIBUTE_XOATTRIBUTEC_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct XoAttributeStruct XoAttributeStruct;

enum {
  kXoAttributeTypeNull = 0,
  kXoAttributeTypeInt = 1,
  kXoAttributeTypeFloat = 2,
  kXoAttributeTypeDouble = 3,
  kXoAttributeTypeString = 4,
  kXoAttributeTypeGroup = 5,
  kXoAttributeTypeInvalid = -1
};

/* Ownership: handles returned by the Create, Parse and Build functions carry
 * one reference that the caller owns. Handles returned by the getters
 * (GetChildByIndex, GetChildByName) are borrowed: valid while the group they
 * came from lives; retain them to keep them longer.
 * Null handles are accepted everywhere and ignored / give neutral results. */
void XoAttributeRetain(XoAttributeStruct* attr);
void XoAttributeRelease(XoAttributeStruct* attr);
int XoAttributeGetType(const XoAttributeStruct* attr);

/* Data attributes. */
size_t XoAttributeGetNumberOfValues(const XoAttributeStruct* attr);
size_t XoAttributeGetTupleSize(const XoAttributeStruct* attr);
const int32_t* XoAttributeGetIntValues(const XoAttributeStruct* attr);
const float* XoAttributeGetFloatValues(const XoAttributeStruct* attr);
const double* XoAttributeGetDoubleValues(const XoAttributeStruct* attr);
/* The index-th string, NUL-terminated, or NULL. Valid while attr lives. */
const char* XoAttributeGetStringValue(const XoAttributeStruct* attr, size_t index);

/* Groups. Child handles are borrowed: valid while the group lives. */
size_t XoAttributeGetNumberOfChildren(const XoAttributeStruct* group);
const char* XoAttributeGetChildName(const XoAttributeStruct* group, size_t index);
XoAttributeStruct* XoAttributeGetChildByIndex(const XoAttributeStruct* group, size_t index);
/* Looks up a child by name or dotted path ("a.b.c"); NULL when absent. */
XoAttributeStruct* XoAttributeGetChildByName(const XoAttributeStruct* group, const char* name);

/* Deterministic XML text; the caller frees it with XoAttributeFreeText. */
char* XoAttributeGetXML(const XoAttributeStruct* attr);
void XoAttributeFreeText(char* text);

/* Binary form: the caller frees the buffer with XoAttributeFreeText.
 * Parse returns a retained handle, or NULL for malformed input. */
char* XoAttributeGetBinary(const XoAttributeStruct* attr, size_t* length);
XoAttributeStruct* XoAttributeParseBinary(const void* data, size_t length);

/* Byte length of the index-th string (strings may hold NUL bytes), 0 when
 * absent. */
size_t XoAttributeGetStringLength(const XoAttributeStruct* attr, size_t index);
/* 1 when the group's children inherit, else 0 (also for non-groups). */
int XoAttributeGetGroupInherit(const XoAttributeStruct* group);
/* Deep equality: 1 or 0. Two NULL handles are equal. Numbers compare bit for
 * bit. */
int XoAttributeEquals(const XoAttributeStruct* a, const XoAttributeStruct* b);

/* Creation. Each returns a new handle with one reference that the caller
 * owns and gives back with XoAttributeRelease. Values are copied; the caller
 * keeps its arrays. tupleSize must be at least 1 and divide count, and values
 * may be NULL only when count is 0; otherwise the result is NULL. */
XoAttributeStruct* XoAttributeCreateNull(void);
XoAttributeStruct* XoAttributeCreateInt(const int32_t* values, size_t count, size_t tupleSize);
XoAttributeStruct* XoAttributeCreateFloat(const float* values, size_t count, size_t tupleSize);
XoAttributeStruct* XoAttributeCreateDouble(const double* values, size_t count, size_t tupleSize);
/* values: count NUL-terminated strings (none of them NULL). */
XoAttributeStruct* XoAttributeCreateString(const char* const* values, size_t count,
                                           size_t tupleSize);
/* Same with explicit byte lengths, for strings that hold NUL bytes. */
XoAttributeStruct* XoAttributeCreateStringWithLengths(const char* const* values,
                                                      const size_t* lengths, size_t count,
                                                      size_t tupleSize);

/* Group builder. Create gives a builder that the caller owns and frees with
 * XoGroupBuilderDestroy. Attribute arguments are borrowed: the builder takes
 * its own reference, so the caller still releases what it owns. Build returns
 * a new group handle (one reference, the caller's). Behaviour as in
 * GroupBuilder of Attribute.h:
 *  - Set: name may be dotted ("a.b") to set inside nested groups, created as
 *    needed with groupInherit (0/1); an existing non-group on the way is
 *    replaced. A NULL attr removes the child. An empty name or one with an
 *    empty segment ("a..b", ".a", "a.") is ignored.
 *  - Update: each child of group replaces the same-named child in place, new
 *    names are appended; a NULL or non-group argument is ignored.
 *  - Del: removes a child by name or dotted path; absent names are ignored.
 *  - Build: mode 0 (BuildAndFlush) leaves the builder empty, with
 *    groupInherit back to 1; any other mode keeps its contents. */
typedef struct XoGroupBuilderStruct XoGroupBuilderStruct;
enum { kXoGroupBuilderBuildAndFlush = 0, kXoGroupBuilderBuildAndRetain = 1 };
XoGroupBuilderStruct* XoGroupBuilderCreate(void);
void XoGroupBuilderDestroy(XoGroupBuilderStruct* builder);
void XoGroupBuilderSet(XoGroupBuilderStruct* builder, const char* name,
                       const XoAttributeStruct* attr, int groupInherit);
void XoGroupBuilderUpdate(XoGroupBuilderStruct* builder, const XoAttributeStruct* group);
void XoGroupBuilderDel(XoGroupBuilderStruct* builder, const char* name);
void XoGroupBuilderSetGroupInherit(XoGroupBuilderStruct* builder, int groupInherit);
XoAttributeStruct* XoGroupBuilderBuild(XoGroupBuilderStruct* builder, int mode);

#ifdef __cplusplus
}
#endif

#endif
