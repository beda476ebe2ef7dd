// Source positions in the library's messages. These are macros because function and line must be those of the reporting
// code. __FILE_NAME__ is the base name; __FILE__ may be a build path.
#ifndef TSLB_REPORT_H
#define TSLB_REPORT_H

#define TSLB_FUNC_LINE __func__, __LINE__                      // for "Error(%s:%d)"
#define TSLB_FILE_LINE_FUNC __FILE_NAME__, __LINE__, __func__  // for "%s:%d:%s:"

#endif
