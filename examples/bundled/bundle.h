/** The contents of /bundle.zip, and the plan of the archive. */
#ifndef BUNDLED_BUNDLE_H
#define BUNDLED_BUNDLE_H

#include <cstddef>
#include <string>

#include <tessra/szip.h>

#include "containers.h"

namespace bundled {

struct BundleSettings {
    std::string base = "/";  ///< Absolute; the rest of a path is the name in the archive.
    TextList paths{checked(LL_create())};  ///< Files and directories below base; "." is base.
    unsigned int streams = 4;              ///< How many bundles may be under way at a time.
};

constexpr std::size_t kMaxBundleEntries = 100000;

/**
 * Plans the archive of the files that exist now.
 *
 * If a named file or directory can't be read, the plan fails. A named link is followed. Below a
 * named directory the plan takes every file and directory, even an empty one. It leaves out links,
 * since they may lead out of the base or in a circle, and devices, sockets and FIFOs. It also
 * leaves out, with a line in the log, a file or directory that can't be read there, or that
 * vanishes meanwhile. Entries are in the order of their bytes, each once.
 *
 * Returns the plan, which the caller frees with szip_free_info(), or null with the reason in the
 * log: a named path is missing, or there are no entries or more than kMaxBundleEntries.
 * Blocks: while it reads every directory and looks at every file.
 */
szip_info_t* plan_bundle(const BundleSettings& settings);

}  // namespace bundled

#endif
