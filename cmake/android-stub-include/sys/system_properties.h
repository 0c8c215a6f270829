/* Stand-in for the platform C library's property header, for compile checks without the NDK:
 * the declarations the engine uses, as the platform declares them. */
#pragma once

#include <sys/cdefs.h>

/* Longest property value, terminator included. */
#define PROP_VALUE_MAX 92

__BEGIN_DECLS
/* Copies the value of `name` into `value` (PROP_VALUE_MAX bytes) and returns its length; an
 * unset property gives "" and 0. */
int __system_property_get(const char* name, char* value);
__END_DECLS
