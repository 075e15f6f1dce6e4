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
// file in one piece; on the journal's stream it starts with "<priority>"
// (syslog's 0 to 7), which a sink never sees.
void emitLine(std::string &line, int priority);

// The prefix and text of one line; returns where the text starts.
size_t formatLine(std::string &out, const TraceFunctionRecord *rec, int line, const char *fmt,
                  va_list ap);

// The syslog priority of a formatted line by its text: 3 for "Error...",
// 4 "Warning...", 5 "Note...", 7 for hex dumps, else 6.
int linePriority(const TraceFunctionRecord *rec, const std::string &line, size_t textStart);

}  // namespace zev0

#endif  // ZEV0_TRACE_INTERNAL_H
