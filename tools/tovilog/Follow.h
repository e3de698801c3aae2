// Follow.h - following the writers' live files as they grow.
#ifndef TOVI_TOOLS_TOVILOG_FOLLOW_H
#define TOVI_TOOLS_TOVILOG_FOLLOW_H

#include <cstdint>
#include <vector>

#include "FileSet.h"
#include "Filter.h"
#include "Options.h"
#include "Output.h"
#include "Sink.h"

namespace tovilog {

// Prints each writer's new items as they are written, moving on to the next
// file when the writer rolls over, and looks for new writers in the given
// directories. Without --since a writer's existing items are read (for
// their dates) but not shown. Returns on SIGINT or SIGTERM with the number
// of records shown.
uint64_t Follow(const std::vector<WriterFiles>& writers, const Options& options, Filter& filter,
                Sink& sink, Output& out);

}  // namespace tovilog

#endif
