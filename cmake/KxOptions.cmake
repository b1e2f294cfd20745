# Build options for the secrets and built-in paths, turned into a generated
# header at configure time:
#   - the server's public key is stored with the position-offset rule (each
#     stored byte is the key text's byte plus its position, modulo 256; the
#     block is one byte longer than the text, that byte becoming the NUL);
#   - each AES key/IV pair is split into fragments that the library assembles
#     at run time, so that no key stands in the binary as one readable string.

set(KX_SERVER_PUBLIC_KEY_FILE "${CMAKE_CURRENT_SOURCE_DIR}/cmake/default_server_public_key.pem"
    CACHE FILEPATH "PEM file (BEGIN PUBLIC KEY) of the key that verifies the cloud's answers")
set(KX_AES_PAIR_A_KEY "3CC927C8E8433098CBB28A02BF35FB33" CACHE STRING "AES-128 key A, 32 hexadecimal digits")
set(KX_AES_PAIR_A_IV  "2257D95548EDD2F62CA9922AD42ECD5E" CACHE STRING "AES-128 IV A, 32 hexadecimal digits")
set(KX_AES_PAIR_B_KEY "ADC25FE7A5C1CC2EE04A3C75C9CA07F4" CACHE STRING "AES-128 key B, 32 hexadecimal digits")
set(KX_AES_PAIR_B_IV  "2095C4A8D4B0869E95FF8E6BDF8860D4" CACHE STRING "AES-128 IV B, 32 hexadecimal digits")
set(KX_CA_BUNDLE_PATH "/usr/local/opt/kxsdk2.0/ca/cacert.pem" CACHE STRING "CA bundle that every secure transfer checks the server against")

# A test build talks to the local test cloud: unless told otherwise it makes a
# fresh answer-signing key pair and CA for this build tree and embeds them.
set(KX_TEST_CREDENTIALS_DIR "${CMAKE_BINARY_DIR}/testcloud" CACHE PATH "Where the test build keeps its generated keys and certificates")
if(KX_BUILD_TESTS OR KX_BUILD_BENCH)
  if(NOT EXISTS "${KX_TEST_CREDENTIALS_DIR}/answer_signing_pub.pem")
    execute_process(COMMAND sh "${CMAKE_CURRENT_SOURCE_DIR}/scripts/gen-test-credentials.sh" "${KX_TEST_CREDENTIALS_DIR}"
                    RESULT_VARIABLE kx_gen_result)
    if(NOT kx_gen_result EQUAL 0)
      message(FATAL_ERROR "could not generate the test cloud's credentials")
    endif()
  endif()
  set(KX_SERVER_PUBLIC_KEY_FILE "${KX_TEST_CREDENTIALS_DIR}/answer_signing_pub.pem" CACHE FILEPATH "" FORCE)
  set(KX_CA_BUNDLE_PATH "${KX_TEST_CREDENTIALS_DIR}/ca.pem" CACHE STRING "" FORCE)
endif()

function(kx_check_hex32 name value)
  if(NOT value MATCHES "^[0-9A-Fa-f]+$")
    message(FATAL_ERROR "${name} must be 32 hexadecimal digits")
  endif()
  string(LENGTH "${value}" len)
  if(NOT len EQUAL 32)
    message(FATAL_ERROR "${name} must be 32 hexadecimal digits")
  endif()
endfunction()

# Emits a C array of the 16 bytes of a 32-digit value as four fragments of four
# bytes, each fragment's bytes reversed, the fragments declared out of order.
function(kx_fragments out prefix value)
  set(text "")
  foreach(frag 2 0 3 1)
    set(bytes "")
    foreach(j 3 2 1 0)
      math(EXPR pos "(${frag} * 4 + ${j}) * 2")
      string(SUBSTRING "${value}" ${pos} 2 b)
      list(APPEND bytes "0x${b}")
    endforeach()
    string(REPLACE ";" ", " bytes "${bytes}")
    string(APPEND text "static const unsigned char ${prefix}_f${frag}[4] = { ${bytes} };\n")
  endforeach()
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

kx_check_hex32(KX_AES_PAIR_A_KEY "${KX_AES_PAIR_A_KEY}")
kx_check_hex32(KX_AES_PAIR_A_IV "${KX_AES_PAIR_A_IV}")
kx_check_hex32(KX_AES_PAIR_B_KEY "${KX_AES_PAIR_B_KEY}")
kx_check_hex32(KX_AES_PAIR_B_IV "${KX_AES_PAIR_B_IV}")

if(NOT EXISTS "${KX_SERVER_PUBLIC_KEY_FILE}")
  message(FATAL_ERROR "KX_SERVER_PUBLIC_KEY_FILE ${KX_SERVER_PUBLIC_KEY_FILE} does not exist")
endif()
file(READ "${KX_SERVER_PUBLIC_KEY_FILE}" kx_key_text)
if(NOT kx_key_text MATCHES "-----BEGIN PUBLIC KEY-----")
  message(FATAL_ERROR "KX_SERVER_PUBLIC_KEY_FILE must hold a PEM BEGIN PUBLIC KEY block")
endif()
file(READ "${KX_SERVER_PUBLIC_KEY_FILE}" kx_key_hex HEX)
string(LENGTH "${kx_key_hex}" kx_hex_len)
math(EXPR kx_key_len "${kx_hex_len} / 2")
math(EXPR kx_last "${kx_key_len} - 1")
set(kx_stored "")
foreach(i RANGE 0 ${kx_last})
  math(EXPR pos "${i} * 2")
  string(SUBSTRING "${kx_key_hex}" ${pos} 2 b)
  math(EXPR v "(0x${b} + ${i}) % 256" OUTPUT_FORMAT HEXADECIMAL)
  string(APPEND kx_stored "${v},")
  math(EXPR brk "${i} % 16")
  if(brk EQUAL 15)
    string(APPEND kx_stored "\n  ")
  endif()
endforeach()
# The byte after the text is overwritten with the terminating NUL when loaded.
math(EXPR kx_pad "(0x5A + ${kx_key_len}) % 256" OUTPUT_FORMAT HEXADECIMAL)
string(APPEND kx_stored "${kx_pad}")
math(EXPR KX_STORED_KEY_SIZE "${kx_key_len} + 1")

kx_fragments(KX_FRAG_A_KEY kx_a_key "${KX_AES_PAIR_A_KEY}")
kx_fragments(KX_FRAG_A_IV kx_a_iv "${KX_AES_PAIR_A_IV}")
kx_fragments(KX_FRAG_B_KEY kx_b_key "${KX_AES_PAIR_B_KEY}")
kx_fragments(KX_FRAG_B_IV kx_b_iv "${KX_AES_PAIR_B_IV}")

set(KX_GENERATED_DIR "${CMAKE_BINARY_DIR}/generated")
file(WRITE "${KX_GENERATED_DIR}/kx_secrets_generated.h.tmp"
"/* Generated at configure time from the build options; do not edit. */
#ifndef KX_SECRETS_GENERATED_H
#define KX_SECRETS_GENERATED_H

#define KX_STORED_KEY_SIZE ${KX_STORED_KEY_SIZE}
static const unsigned char kx_stored_key[KX_STORED_KEY_SIZE] = {
  ${kx_stored}
};

#define KX_CA_BUNDLE_PATH_TEXT \"${KX_CA_BUNDLE_PATH}\"

${KX_FRAG_A_KEY}${KX_FRAG_A_IV}${KX_FRAG_B_KEY}${KX_FRAG_B_IV}
#endif
")
configure_file("${KX_GENERATED_DIR}/kx_secrets_generated.h.tmp" "${KX_GENERATED_DIR}/kx_secrets_generated.h" COPYONLY)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${KX_SERVER_PUBLIC_KEY_FILE}")
