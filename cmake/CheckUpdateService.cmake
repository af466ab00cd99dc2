# Refuses a build whose NVO_UPDATE_* entries could never lead to an update: the program compares origins and hosts
# byte for byte and drops what it can't use without a word. Runs where it is included, or by `cmake -D... -P`.
cmake_policy(VERSION 3.22)
set(host_form "[a-z0-9]([a-z0-9.-]*[a-z0-9])?")

foreach(entry NVO_UPDATE_PRIMARY_ORIGIN NVO_UPDATE_FALLBACK_ORIGIN)
  if(entry STREQUAL "NVO_UPDATE_FALLBACK_ORIGIN" AND "${${entry}}" STREQUAL "")
    continue()
  endif()
  if(NOT "${${entry}}" MATCHES "^https://${host_form}(:[0-9]+)?/?$")
    message(FATAL_ERROR "${entry} is \"${${entry}}\"; it has to be https://HOST or https://HOST:PORT with the host in "
      "lower case, and nothing behind it.")
  endif()
endforeach()

if("${NVO_UPDATE_DOWNLOAD_HOSTS}" STREQUAL "")
  message(FATAL_ERROR "NVO_UPDATE_DOWNLOAD_HOSTS is empty; no update could be offered.")
endif()
foreach(host IN LISTS NVO_UPDATE_DOWNLOAD_HOSTS)
  if(NOT "${host}" MATCHES "^${host_form}$")
    message(FATAL_ERROR "NVO_UPDATE_DOWNLOAD_HOSTS holds \"${host}\"; a host is a name in lower case, without scheme or "
      "port.")
  endif()
endforeach()

# The algorithm's name and the beginning of the key itself are the same in every RSA key of 2048 bits.
string(LENGTH "${NVO_UPDATE_PUBLIC_KEY}" key_length)
if(NOT key_length EQUAL 392 OR NOT "${NVO_UPDATE_PUBLIC_KEY}" MATCHES "^MIIBIjANBgkqhkiG9w0BAQEFAAOCAQ8A[A-Za-z0-9+/]+$")
  message(FATAL_ERROR "NVO_UPDATE_PUBLIC_KEY is no RSA key of 2048 bits: it has to be a SubjectPublicKeyInfo (DER) in "
    "base64, 392 characters in one line; this one has ${key_length}.")
endif()
