add_library(qev_options INTERFACE)
target_compile_options(qev_options INTERFACE -Wall -Wextra -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # GCC 12 reports impossible overlaps, sizes and bounds in inlined std::string code at -O2
  # and above (GCC bugs 105651, 105329); these warnings carry no signal there.
  target_compile_options(qev_options INTERFACE -Wno-restrict -Wno-stringop-overflow
                         -Wno-array-bounds)
endif()
if(QEV_SANITIZE STREQUAL "address")
  target_compile_options(qev_options INTERFACE -fsanitize=address,undefined
                         -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  target_link_options(qev_options INTERFACE -fsanitize=address,undefined)
elseif(QEV_SANITIZE STREQUAL "thread")
  # -Wno-tsan: asio's headers use std::atomic_thread_fence, which GCC warns TSan cannot model.
  target_compile_options(qev_options INTERFACE -fsanitize=thread -fno-omit-frame-pointer -Wno-tsan)
  target_link_options(qev_options INTERFACE -fsanitize=thread)
elseif(QEV_SANITIZE STREQUAL "fuzzer")
  # Coverage for libFuzzer everywhere; the fuzz targets link the fuzzer's main themselves.
  target_compile_options(qev_options INTERFACE -fsanitize=fuzzer-no-link,address,undefined
                         -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  target_link_options(qev_options INTERFACE -fsanitize=address,undefined)
elseif(QEV_SANITIZE)
  message(FATAL_ERROR "QEV_SANITIZE must be empty, address, thread or fuzzer")
endif()
