/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The export mark of libharvo-fw.
 *
 * The library is compiled with hidden visibility by default, so only what
 * carries HARVO_FW_API is part of its dynamic symbol table: the public
 * classes (with their virtual tables and type information), the public
 * free functions, the exported globals and the pelx_ functions. Everything
 * else, internal helpers and the template instances of other libraries
 * included, stays inside the library and may change without notice.
 *
 * Consumers need do nothing: the mark means "default visibility" both
 * when the library is built and when its headers are used.
 */
#ifndef HARVO_FW_EXPORT_H
#define HARVO_FW_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define HARVO_FW_API __attribute__((visibility("default")))
#else
#define HARVO_FW_API
#endif

#endif /* HARVO_FW_EXPORT_H */
