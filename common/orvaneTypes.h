/*
 * The types that every interface of the library shares: results, booleans and fixed-width
 * integers, the head of a doubly linked list, and the marks that an interface carries (exported,
 * printf-like).
 *
 * A result is 0 (or a count) for success and a negative errno value for failure; one function
 * or another returns a code of its own instead and says so beside its declaration.
 */
#ifndef ORVANE_TYPES_H
#define ORVANE_TYPES_H

#include <stdint.h>

#ifdef __cplusplus
#    define OV_EXTERN_C_BEGIN extern "C" {
#    define OV_EXTERN_C_END }
#else
#    define OV_EXTERN_C_BEGIN
#    define OV_EXTERN_C_END
#endif

/* Everything declared between these two is exported by the shared library; the rest is hidden. */
#define OV_PUBLIC_BEGIN OV_EXTERN_C_BEGIN _Pragma("GCC visibility push(default)")
#define OV_PUBLIC_END _Pragma("GCC visibility pop") OV_EXTERN_C_END

/* Lets the compiler check the arguments against the format; both positions count from 1. An
 * argument position of 0 marks the variants that take a va_list. */
#define OV_PRINTF_LIKE(FormatPosition, ArgumentPosition) \
    __attribute__((format(printf, FormatPosition, ArgumentPosition)))

typedef int32_t OV_ERR_T;     /* 0 or a negative errno value */
typedef int32_t OV_LEN_ERR_T; /* a byte count or a negative errno value */

typedef int BOOL;
#ifndef TRUE
#    define TRUE 1
#endif
#ifndef FALSE
#    define FALSE 0
#endif

typedef uint8_t u8;
typedef uint16_t u16;
typedef uint32_t u32;
typedef uint64_t u64;

/* A link of a doubly linked ring; an empty list's head points at itself. */
typedef struct _OV_LIST_HEAD {
    struct _OV_LIST_HEAD *next;
    struct _OV_LIST_HEAD *prev;
} OV_LIST_HEAD;

/* Makes Head an empty list. */
static inline void OV_InitListHead(OV_LIST_HEAD *Head)
{
    Head->next = Head;
    Head->prev = Head;
}

/* A pointer may carry an error, -4095 to -1, in place of an address. */
#define OV_ERR_POINTER_MAX 4095

/* TRUE for null and for a pointer that carries an error. */
static inline BOOL OV_IS_ERR_OR_NULL(const void *Ptr)
{
    return Ptr == 0 || (uintptr_t)Ptr >= (uintptr_t)-OV_ERR_POINTER_MAX;
}

#endif
