// Internals of the trace facility shared by its source files.
#ifndef ZEV0_TRACE_INTERNAL_H
#define ZEV0_TRACE_INTERNAL_H

#include <cstdarg>
#include <string>

#include "zev0.h"

namespace zev0 {

// Appends the text of a TLG1_Printf format with its arguments: the printf
// conversions, "(null)" for a NULL string, and "%-*.*x" as a hex area
// (width, byte count, pointer).
void formatText(std::string &out, const char *fmt, va_list ap);

// Adds a final newline when missing and writes the line to the sink or the
// file in one piece.
void emitLine(std::string &line);

// The prefix and text of one line.
void formatLine(std::string &out, const TraceFunctionRecord *rec, int line, const char *fmt,
                va_list ap);

}  // namespace zev0

#endif  // ZEV0_TRACE_INTERNAL_H
