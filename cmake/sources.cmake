# Every source of the product but the process entry.
file(GLOB HNETD_SOURCES CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/platform/utils/src/*.cpp
  ${PROJECT_SOURCE_DIR}/platform/osa/*.cpp
  ${PROJECT_SOURCE_DIR}/platform/osa/linux/src/*.cpp
  ${PROJECT_SOURCE_DIR}/netd/src/hnetd.cpp)
