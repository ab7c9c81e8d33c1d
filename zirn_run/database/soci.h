#ifndef DATABASE_SOCI_H
#define DATABASE_SOCI_H

// SOCI as Debian builds it, without Boost: its configuration would include what nothing here uses.
#define SOCICONFIG_H_INCLUDED
#define SOCI_HAVE_CXX11
#define SOCI_HAVE_VISIBILITY_SUPPORT
#include <soci/soci.h>

#endif
