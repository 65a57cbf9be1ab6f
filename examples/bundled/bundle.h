/** What goes into /bundle.zip, and the plan of the archive. */
#ifndef BUNDLED_BUNDLE_H
#define BUNDLED_BUNDLE_H

#include <cstddef>
#include <string>

#include <tessra/szip.h>

#include "containers.h"

namespace bundled {

struct BundleSettings {
    std::string base = "/";  ///< Absolute; what follows it makes the names in the archive.
    TextList paths{checked(LL_create())};  ///< Files and directories below it, "." for itself.
    unsigned int streams = 4;              ///< How many bundles may be under way at a time.
};

constexpr std::size_t kMaxBundleEntries = 100000;

/**
 * Plans the archive of what is there now.
 *
 * A named file or directory that can't be read fails the plan; a link that is named stands for what
 * it points to. Below a named directory everything is taken that is a file or a directory, empty
 * ones too. Links there are left out, since they may lead out of the base or in a circle, and so
 * are devices, sockets and FIFOs. What can't be read there, or goes while it is looked at, is left
 * out with a line in the log. Entries are in the order of their bytes, each once.
 *
 * Returns the plan, to be freed with szip_free_info(), or null with the reason in the log: a named
 * path is missing, nothing is there to bundle, or more than kMaxBundleEntries are.
 * Blocks: in looking at every directory and file.
 */
szip_info_t* plan_bundle(const BundleSettings& settings);

}  // namespace bundled

#endif
