// The release that an XML file names.
#pragma once

#include "zandor/runtime/text.hpp"

namespace vantrace {

/// The text of the first direct child of the root that is named "release"; empty when there is
/// none. What the reader throws passes.
fl::ustring releaseInXmlFile(const fl::ustring& path);

}  // namespace vantrace
