// Marks the C library of the device; every header comes here first.
#pragma once
#define __BIONIC__ 1

#ifdef __cplusplus
#define __BEGIN_DECLS extern "C" {
#define __END_DECLS   }
#else
#define __BEGIN_DECLS
#define __END_DECLS
#endif
