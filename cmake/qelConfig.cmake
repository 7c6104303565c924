include(${CMAKE_CURRENT_LIST_DIR}/qelTargets.cmake)
