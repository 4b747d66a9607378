# Finds the pugixml library: imported target Pugixml::Pugixml. Its own configuration file speaks of
# one architecture only.
find_path(Pugixml_INCLUDE_DIR pugixml.hpp)
find_library(Pugixml_LIBRARY NAMES pugixml)
mark_as_advanced(Pugixml_INCLUDE_DIR Pugixml_LIBRARY)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Pugixml REQUIRED_VARS Pugixml_LIBRARY Pugixml_INCLUDE_DIR)

if(Pugixml_FOUND AND NOT TARGET Pugixml::Pugixml)
    add_library(Pugixml::Pugixml UNKNOWN IMPORTED)
    set_target_properties(Pugixml::Pugixml PROPERTIES
        IMPORTED_LOCATION "${Pugixml_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${Pugixml_INCLUDE_DIR}")
endif()
