# KV_TRUSTED_KEY names a file of minisign public keys: as minisign writes them, one after the other. With it the device
# program accepts only packages that one of these keys has signed.
set(KV_TRUSTED_KEY "" CACHE FILEPATH "minisign public keys; upgradeMain then accepts only packages that one has signed")

# kv_trusted_keys(FILE OUT): writes kv_trusted_keys.h with the keys of FILE into the folder OUT.
function(kv_trusted_keys file out)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${file}")
    if(NOT EXISTS "${file}")
        message(FATAL_ERROR "KV_TRUSTED_KEY: there is no file ${file}.")
    endif()
    # A comment may contain anything; a key begins with the letters of its algorithm, "Ed" in base64.
    file(STRINGS "${file}" keys REGEX "^RW")
    file(STRINGS "${file}" others REGEX "^([^uR#]|R[^W])")
    set(KV_TRUSTED_KEYS "")
    foreach(key IN LISTS keys)
        string(STRIP "${key}" key)
        string(LENGTH "${key}" length)
        if(NOT key MATCHES "^RW[A-Za-z0-9+/]+$" OR NOT length EQUAL 56)
            message(FATAL_ERROR "${file}: '${key}' is not a minisign public key.")
        endif()
        string(APPEND KV_TRUSTED_KEYS "    \"${key}\",\n")
    endforeach()
    if(others OR NOT keys)
        message(FATAL_ERROR "${file}: not a list of minisign public keys (\"untrusted comment: …\", then \"RW…\").")
    endif()
    configure_file("${PROJECT_SOURCE_DIR}/cmake/kv_trusted_keys.h.in" "${out}/kv_trusted_keys.h" @ONLY)
endfunction()
