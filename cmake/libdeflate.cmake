# Finds libdeflate (Debian: libdeflate-dev) and gives the imported target
# qel::libdeflate: through pkg-config when it knows the library, else by
# looking for the header and the library where the compiler would.
if(TARGET qel::libdeflate)
  return()
endif()

find_package(PkgConfig QUIET)
if(PKG_CONFIG_FOUND)
  pkg_check_modules(QEL_LIBDEFLATE QUIET IMPORTED_TARGET libdeflate)
endif()

if(TARGET PkgConfig::QEL_LIBDEFLATE)
  add_library(qel::libdeflate ALIAS PkgConfig::QEL_LIBDEFLATE)
else()
  find_path(QEL_LIBDEFLATE_INCLUDE_DIR libdeflate.h)
  find_library(QEL_LIBDEFLATE_LIBRARY NAMES deflate libdeflate)
  if(NOT QEL_LIBDEFLATE_INCLUDE_DIR OR NOT QEL_LIBDEFLATE_LIBRARY)
    message(FATAL_ERROR "libdeflate not found: install libdeflate-dev (scripts/setup.sh)")
  endif()
  add_library(qel::libdeflate UNKNOWN IMPORTED)
  set_target_properties(qel::libdeflate PROPERTIES
    IMPORTED_LOCATION "${QEL_LIBDEFLATE_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${QEL_LIBDEFLATE_INCLUDE_DIR}")
endif()
