# Runs folders of pytest tests under ctest. The interpreter of the build may lack what they need (a private Python
# that comes first on PATH often does), so one that has it all is looked for, the build's own first.
if(NOT VORLINKIT_PYTEST_PYTHON)
  foreach(candidate IN ITEMS ${Python_EXECUTABLE} /usr/bin/python3 python3.11 python3)
    execute_process(COMMAND ${candidate} -c "import sys, pytest, hypothesis, mypy; sys.exit(sys.version_info[:2] != (3, 11))"
                    RESULT_VARIABLE failed OUTPUT_QUIET ERROR_QUIET)
    if(NOT failed)
      set(VORLINKIT_PYTEST_PYTHON ${candidate} CACHE FILEPATH "A Python 3.11 for the tests" FORCE)
      break()
    endif()
  endforeach()
  if(NOT VORLINKIT_PYTEST_PYTHON)
    message(FATAL_ERROR "The tests need a Python 3.11 with pytest, hypothesis and mypy (Debian packages "
                        "python3-pytest, python3-hypothesis and python3-mypy)")
  endif()
endif()

if(VORLINKIT_BUILD_PYTHON)
  set(vorlinkit_pytest_environment PYTHONPATH=${PROJECT_BINARY_DIR}/python)
else()
  # The companion package works without the module; only its catalogue has to be pointed out.
  set(vorlinkit_pytest_environment PYTHONPATH=${PROJECT_SOURCE_DIR}/python
      VORLINKIT_CATALOGUE=${PROJECT_BINARY_DIR}/python/vorlinkit/catalogue.json)
endif()

# vorlinkit_add_pytest(NAME PATH): one ctest test that runs a folder or a file with the built module and the
# companion package on its path.
function(vorlinkit_add_pytest name folder)
  get_filename_component(folder ${folder} ABSOLUTE)
  add_test(NAME ${name}
           COMMAND ${VORLINKIT_PYTEST_PYTHON} -m pytest -q -p no:cacheprovider ${folder}
           WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})
  set_tests_properties(${name} PROPERTIES
    ENVIRONMENT "${vorlinkit_pytest_environment};PYTHONDONTWRITEBYTECODE=1;VORLINKIT_BUILD_DIR=${PROJECT_BINARY_DIR}")
endfunction()
