// The limits that <cutils/properties.h> takes from the C library's property API. Debian's
// headers include this file but do not ship it; the values are the platform's.
#pragma once

#ifndef PROP_NAME_MAX
#define PROP_NAME_MAX 32
#endif

#ifndef PROP_VALUE_MAX
#define PROP_VALUE_MAX 92
#endif
