# What an installation holds of Python, component "python": the package, the stub of the extension module, which type
# checkers want wherever the package is, and the extension module, if it is built.
if(VORLINKIT_PACKAGE_ONLY)
  set(python_dir lib/python${Python_VERSION_MAJOR}.${Python_VERSION_MINOR}/site-packages)
else()
  set(python_dir ${CMAKE_INSTALL_LIBDIR}/python3.11/site-packages)
endif()
set(VORLINKIT_INSTALL_PYTHON_DIR ${python_dir} CACHE STRING "Where the Python module goes, below the prefix")

if(POLICY CMP0177)
  cmake_policy(SET CMP0177 NEW) # a wheel's folder is ".", and a path with it says the same as one without
endif()
if(TARGET vorlinkit_python)
  install(TARGETS vorlinkit_python LIBRARY DESTINATION ${VORLINKIT_INSTALL_PYTHON_DIR} COMPONENT python)
endif()
# Type checkers take the stub of an extension module from a package of stubs.
install(FILES ${PROJECT_BINARY_DIR}/python/vorlinkit_python.pyi
  DESTINATION ${VORLINKIT_INSTALL_PYTHON_DIR}/vorlinkit_python-stubs RENAME __init__.pyi COMPONENT python)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/python/vorlinkit
  DESTINATION ${VORLINKIT_INSTALL_PYTHON_DIR}
  COMPONENT python
  FILES_MATCHING PATTERN "*.py" PATTERN "py.typed" PATTERN "__pycache__" EXCLUDE)
foreach(file IN LISTS VORLINKIT_GENERATED_PACKAGE_FILES)
  get_filename_component(folder vorlinkit/${file} DIRECTORY)
  install(FILES ${PROJECT_BINARY_DIR}/python/vorlinkit/${file}
    DESTINATION ${VORLINKIT_INSTALL_PYTHON_DIR}/${folder} COMPONENT python)
endforeach()
