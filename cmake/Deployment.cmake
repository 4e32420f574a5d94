# Values the deployment decides. They reach the code through one generated header.
set(QEV_DISPLAY_NAME "QEV" CACHE STRING "Application display name")
set(QEV_CLIENT_VERSION "${PROJECT_VERSION}" CACHE STRING
    "Client version compared by the update check")
set(QEV_APPLICATION_ID "com.qevjs.native" CACHE STRING
    "Desktop application id (GApplication, window class, AppStream component)")
set(QEV_PANEL_API_BASE "https://panel.example.com" CACHE STRING
    "Fallback panel API base (kept in the binary only enciphered)")
set(QEV_REMOTE_CONFIG_URL "https://config.example.com/qev/config.json" CACHE STRING
    "Address of the remote frontend configuration document")
set(QEV_OSS_HOST_LABEL "objstore" CACHE STRING
    "Second-level domain label of the object-storage provider")
set(QEV_CONNECTIVITY_CHECK_URL "http://www.gstatic.com/generate_204" CACHE STRING
    "Public HTTP 204 endpoint used by the node delay probe")

# Key of the repeating XOR that hides deployment addresses in the binary and the page scripts.
set(QEV_CIPHER_KEY "trex-binder-gate-947")

# qev_xor_bytes(<out-var> <text> <key>): the text's bytes XORed with the repeating key, as a
# comma-separated list of decimal numbers usable in C++ and JavaScript array literals.
function(qev_xor_bytes out text key)
  string(HEX "${text}" text_hex)
  string(HEX "${key}" key_hex)
  string(LENGTH "${text_hex}" text_len)
  string(LENGTH "${key_hex}" key_len)
  set(bytes "")
  set(i 0)
  while(i LESS text_len)
    math(EXPR k "${i} % ${key_len}")
    string(SUBSTRING "${text_hex}" ${i} 2 t)
    string(SUBSTRING "${key_hex}" ${k} 2 kb)
    math(EXPR v "0x${t} ^ 0x${kb}")
    list(APPEND bytes ${v})
    math(EXPR i "${i} + 2")
  endwhile()
  string(REPLACE ";" ", " bytes "${bytes}")
  set(${out} "${bytes}" PARENT_SCOPE)
endfunction()

qev_xor_bytes(QEV_PANEL_API_BASE_CIPHER "${QEV_PANEL_API_BASE}" "${QEV_CIPHER_KEY}")
qev_xor_bytes(QEV_REMOTE_CONFIG_URL_CIPHER "${QEV_REMOTE_CONFIG_URL}" "${QEV_CIPHER_KEY}")

configure_file(${CMAKE_CURRENT_LIST_DIR}/deployment.h.in
               ${CMAKE_BINARY_DIR}/generated/qev/deployment.h @ONLY)
