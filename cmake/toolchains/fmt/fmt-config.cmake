# fmt as headers alone, beside those of asio: the package of this system is made for this system's own programs.
add_library(fmt::fmt-header-only INTERFACE IMPORTED)
set_target_properties(fmt::fmt-header-only PROPERTIES
  INTERFACE_INCLUDE_DIRECTORIES "${VORLINKIT_ASIO_INCLUDE_DIR}" INTERFACE_COMPILE_DEFINITIONS FMT_HEADER_ONLY=1)
