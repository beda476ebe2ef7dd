// How the library says where a report comes from. Macros, since function and line must be the reporting
// place's own;
// __FILE_NAME__ is the base name, where __FILE__ may be the path of whoever built the library.
#ifndef TSLB_REPORT_H
#define TSLB_REPORT_H

#define TSLB_FUNC_LINE __func__, __LINE__                      // for "Error(%s:%d)"
#define TSLB_FILE_LINE_FUNC __FILE_NAME__, __LINE__, __func__  // for "%s:%d:%s:"

#endif
