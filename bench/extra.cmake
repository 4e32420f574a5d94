# The subscription benchmark compares the line-based text path with a YAML library round trip;
# the library is a benchmark-only dependency.
find_package(yaml-cpp REQUIRED)
target_link_libraries(subscription_bench PRIVATE yaml-cpp)

# The desktop shell benchmark (bench/shell_bench.sh) measures qev against a bare WebKitGTK
# window showing the same page.
if(QEV_BUILD_GTK)
  pkg_check_modules(QEV_BARE_WEBVIEW REQUIRED IMPORTED_TARGET gtk+-3.0 webkit2gtk-4.1)
  add_executable(bare_webview ${CMAKE_CURRENT_SOURCE_DIR}/bare_webview.cpp)
  target_link_libraries(bare_webview PRIVATE qev_options PkgConfig::QEV_BARE_WEBVIEW)
  set_target_properties(bare_webview PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
endif()
