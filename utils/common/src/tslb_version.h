/* Version of the library to which these headers belong. */
#ifndef TSLB_VERSION_H
#define TSLB_VERSION_H

#define TSLB_VERSION_MAJOR 0
#define TSLB_VERSION_MINOR 2
#define TSLB_VERSION_PATCH 0

#define TSLB_VERSION_TEXT_OF_(x) #x
#define TSLB_VERSION_TEXT_(x) TSLB_VERSION_TEXT_OF_(x)

/* The version as text, for example "0.2.0". */
#define TSLB_VERSION_STRING              \
  TSLB_VERSION_TEXT_(TSLB_VERSION_MAJOR) \
  "." TSLB_VERSION_TEXT_(TSLB_VERSION_MINOR) "." TSLB_VERSION_TEXT_(TSLB_VERSION_PATCH)

/* The version as one number, to compare in #if: TSLB_VERSION_NUMBER >= TSLB_VERSION_OF(0, 2, 0). */
#define TSLB_VERSION_OF(major, minor, patch) ((major)*10000 + (minor)*100 + (patch))
#define TSLB_VERSION_NUMBER TSLB_VERSION_OF(TSLB_VERSION_MAJOR, TSLB_VERSION_MINOR, TSLB_VERSION_PATCH)

#endif
