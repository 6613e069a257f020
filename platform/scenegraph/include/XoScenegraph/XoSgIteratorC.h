/* C boundary of the scene library's iterator: an opaque, reference-counted
 * cursor on one location of a loaded Op tree. */
#ifndef XOSCENEGRAPH_XOSGITERATORC_H
#define XOSCENEGRAPH_XOSGITERATORC_H

#include "XoAttribute/XoAttributeC.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct XoSgIteratorStruct XoSgIteratorStruct;

void XoSgIteratorRetain(XoSgIteratorStruct* it);
void XoSgIteratorRelease(XoSgIteratorStruct* it);

/* Texts are valid while the iterator lives. NULL handles give "". */
const char* XoSgIteratorGetName(const XoSgIteratorStruct* it);
const char* XoSgIteratorGetFullName(const XoSgIteratorStruct* it);
const char* XoSgIteratorGetType(const XoSgIteratorStruct* it);
/* Borrowed: valid while the iterator lives; NULL when absent. */
XoAttributeStruct* XoSgIteratorGetAttribute(const XoSgIteratorStruct* it, const char* nameOrPath);
XoAttributeStruct* XoSgIteratorGetAttributes(const XoSgIteratorStruct* it);
/* New retained iterators, or NULL. */
XoSgIteratorStruct* XoSgIteratorGetFirstChild(const XoSgIteratorStruct* it);
XoSgIteratorStruct* XoSgIteratorGetNextSibling(const XoSgIteratorStruct* it);
XoSgIteratorStruct* XoSgIteratorGetChildByName(const XoSgIteratorStruct* it, const char* name);

#ifdef __cplusplus
}
#endif

#endif
