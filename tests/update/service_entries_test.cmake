# cmake -DCHECK=FILE -P: runs the check of a build's update service on good entries of which one is another.
cmake_policy(VERSION 3.22)

# expect(yes|no ENTRY value...): whether each of these values is accepted.
function(expect accepted entry)
  foreach(value IN LISTS ARGN)
    set(PRIMARY_ORIGIN "https://updates.example.com:8443")
    set(FALLBACK_ORIGIN "https://updates.example.net/")
    set(DOWNLOAD_HOSTS "downloads.example.com,10.0.0.7")
    set(PUBLIC_KEY "${key_head}${key_tail}")
    set(${entry} "${value}")
    string(REPLACE "," ";" DOWNLOAD_HOSTS "${DOWNLOAD_HOSTS}")
    execute_process(
      COMMAND "${CMAKE_COMMAND}" "-DNVO_UPDATE_PRIMARY_ORIGIN=${PRIMARY_ORIGIN}"
        "-DNVO_UPDATE_FALLBACK_ORIGIN=${FALLBACK_ORIGIN}" "-DNVO_UPDATE_DOWNLOAD_HOSTS=${DOWNLOAD_HOSTS}"
        "-DNVO_UPDATE_PUBLIC_KEY=${PUBLIC_KEY}" -P "${CHECK}"
      RESULT_VARIABLE code ERROR_VARIABLE text)
    if(accepted AND NOT code EQUAL 0 OR NOT accepted AND NOT text MATCHES "NVO_UPDATE_${entry} ")
      message(SEND_ERROR "${entry} \"${value}\", accepted: ${accepted}, exit code ${code}\n${text}")
    endif()
  endforeach()
endfunction()

set(key_head "MIIBIjANBgkqhkiG9w0BAQEFAAOCAQ8A")
string(REPEAT "A" 360 key_tail)
foreach(origin PRIMARY_ORIGIN FALLBACK_ORIGIN)
  expect(yes ${origin} "https://x.test" "https://10.0.0.7:443/")
  expect(no ${origin} "http://x.test" "x.test" "https://" "https://X.test" "HTTPS://x.test" "https://x.test/v2"
    "https://x.test:" "https://me@x.test" "https://x.test\"")
endforeach()
expect(no PRIMARY_ORIGIN "")
expect(yes FALLBACK_ORIGIN "")
expect(no DOWNLOAD_HOSTS "" "x.test,Y.test" "https://x.test" "x.test:443" "x.test." "x.test/d")
expect(no PUBLIC_KEY "" "${key_head}${key_tail}A" "${key_tail}${key_head}" "${key_head}${key_tail}\n"
  "${key_head}\"${key_tail}")
