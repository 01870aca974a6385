# find_package(zandor) gives the targets zandor::runtime, zandor::instrument and so on.

# For the documents of zandor::performance's header xml.hpp; nothing else needs it.
find_package(LibXml2 QUIET)

include("${CMAKE_CURRENT_LIST_DIR}/zandorTargets.cmake")
