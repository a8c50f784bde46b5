/*
 * What every public header of libkmxc_orvane.so opens with: KMXC_API marks an exported
 * declaration, KMXC_BEGIN_DECLS / KMXC_END_DECLS give C linkage to C++ callers.
 * Installed beside platform.h.
 */
#ifndef KMXC_API_H
#define KMXC_API_H

#ifndef KMXC_API
#define KMXC_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
#define KMXC_BEGIN_DECLS extern "C" {
#define KMXC_END_DECLS }
#else
#define KMXC_BEGIN_DECLS
#define KMXC_END_DECLS
#endif

#endif /* KMXC_API_H */
