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

/* Null handles are accepted everywhere and ignored / give neutral results. */
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

#ifdef __cplusplus
}
#endif

#endif
