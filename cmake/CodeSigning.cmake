# Code signing for the build: the trusted anchors compiled into the helper,
# a test certificate authority of the build's own, and korvo_codesign_target().
#
# Every build makes a small test PKI with the openssl command-line tool, once,
# in ${CMAKE_BINARY_DIR}/codesign-test-ca (keys stay in the build tree):
#   root CA  -> intermediate CA -> "team" leaf       (OU Q4XW82KTJN, code-signing EKU)
#                               -> "otherteam" leaf  (OU ZX81TEAM00, code-signing EKU)
#                               -> "noeku" leaf      (OU Q4XW82KTJN, server-auth EKU only)
#   other root CA (never trusted) -> "otherca" leaf  (OU Q4XW82KTJN, code-signing EKU)
# The helper trusts the roots in KORVO_CODESIGN_ANCHORS, or this test root when
# that cache variable is empty.
#
# Variables set here, for the build and for tests:
#   KORVO_TEST_CA_DIR                     the folder above
#   KORVO_TEST_ANCHORS                    the test root certificate (PEM)
#   KORVO_TEST_OTHER_ANCHORS              the untrusted second root (PEM)
#   KORVO_TEST_SIGNER_<S>_CERT/_KEY/_CHAIN for S in TEAM, OTHERTEAM, OTHERCA, NOEKU
#   KORVO_CODESIGN_ANCHORS_EFFECTIVE      the PEM bundle compiled into the helper
#   KORVO_TEST_CA_TRUSTED                 ON when that bundle is the test root
#   KORVO_GENERATED_DIR                   ${CMAKE_BINARY_DIR}/generated (on korvo's include path)
#   (KorvoVersion.h there: KORVO_VERSION and KORVO_TRUSTS_TEST_SIGNING_CA, for the daemon and korvoctl)
#   KORVO_CODESIGN_TOOL                   $<TARGET_FILE:korvo-codesign> (a generator expression)
#
# Generated header ${KORVO_GENERATED_DIR}/TestSigning.h (#include "TestSigning.h")
# defines the same paths as string macros for tests and KORVO_CODESIGN_TOOL_PATH.
#
# Functions:
#   korvo_codesign_target(<target> IDENTIFIER <id> [SIGNER team|otherteam|otherca|noeku])
#       signs the target's output in place after every link (default signer: team).
#   korvo_codesign_file(OUTPUT <signed copy> INPUT <file> IDENTIFIER <id>
#                       [SIGNER ...] [DEPENDS ...])
#       a build rule that copies INPUT to OUTPUT and signs the copy; add OUTPUT
#       to a custom target's DEPENDS to have it built.

set(KORVO_TEAM_OU "Q4XW82KTJN")
set(KORVO_OTHER_TEAM_OU "ZX81TEAM00")
set(KORVO_TEST_CA_DIR ${CMAKE_BINARY_DIR}/codesign-test-ca)
set(KORVO_GENERATED_DIR ${CMAKE_BINARY_DIR}/generated)
set(KORVO_CODESIGN_TOOL $<TARGET_FILE:korvo-codesign>)

find_program(KORVO_OPENSSL_EXECUTABLE openssl REQUIRED)

function(_korvo_openssl)
  execute_process(COMMAND ${KORVO_OPENSSL_EXECUTABLE} ${ARGN}
    WORKING_DIRECTORY ${KORVO_TEST_CA_DIR}
    RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "openssl ${ARGN} failed (${status}):\n${out}${err}")
  endif()
endfunction()

# A certificate signed by <issuer> (or self-signed when ISSUER is empty).
function(_korvo_make_cert name subject issuer extensions)
  file(WRITE ${KORVO_TEST_CA_DIR}/${name}.ext "[v3]\n${extensions}\n")
  _korvo_openssl(req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes
    -keyout ${name}.key -out ${name}.csr -subj ${subject})
  if(issuer STREQUAL "")
    _korvo_openssl(x509 -req -in ${name}.csr -signkey ${name}.key -days 7300
      -set_serial 1 -sha256 -extfile ${name}.ext -extensions v3 -out ${name}.pem)
  else()
    string(RANDOM LENGTH 12 ALPHABET 0123456789 serial)
    _korvo_openssl(x509 -req -in ${name}.csr -CA ${issuer}.pem -CAkey ${issuer}.key
      -set_serial 1${serial} -days 3650 -sha256 -extfile ${name}.ext -extensions v3 -out ${name}.pem)
  endif()
  file(REMOVE ${KORVO_TEST_CA_DIR}/${name}.csr ${KORVO_TEST_CA_DIR}/${name}.ext)
endfunction()

if(NOT EXISTS ${KORVO_TEST_CA_DIR}/complete)
  message(STATUS "Making the code-signing test CA in ${KORVO_TEST_CA_DIR}")
  file(REMOVE_RECURSE ${KORVO_TEST_CA_DIR})
  file(MAKE_DIRECTORY ${KORVO_TEST_CA_DIR})
  set(ca_ext "basicConstraints=critical,CA:true\nkeyUsage=critical,keyCertSign,cRLSign\nsubjectKeyIdentifier=hash")
  set(leaf_ext "basicConstraints=critical,CA:false\nkeyUsage=critical,digitalSignature\nsubjectKeyIdentifier=hash\nauthorityKeyIdentifier=keyid")
  _korvo_make_cert(root "/O=Korvo Build/CN=Korvo Test Root CA" "" "${ca_ext}")
  _korvo_make_cert(intermediate "/O=Korvo Build/CN=Korvo Test Code Signing CA" root
    "${ca_ext}\nauthorityKeyIdentifier=keyid")
  _korvo_make_cert(team "/O=Tallowmar Test/OU=${KORVO_TEAM_OU}/CN=Korvo Test Developer (${KORVO_TEAM_OU})"
    intermediate "${leaf_ext}\nextendedKeyUsage=codeSigning")
  _korvo_make_cert(otherteam "/O=Other Vendor/OU=${KORVO_OTHER_TEAM_OU}/CN=Other Developer (${KORVO_OTHER_TEAM_OU})"
    intermediate "${leaf_ext}\nextendedKeyUsage=codeSigning")
  _korvo_make_cert(noeku "/O=Tallowmar Test/OU=${KORVO_TEAM_OU}/CN=Korvo Test Server (${KORVO_TEAM_OU})"
    intermediate "${leaf_ext}\nextendedKeyUsage=serverAuth")
  _korvo_make_cert(otherroot "/O=Elsewhere/CN=Untrusted Test Root CA" "" "${ca_ext}")
  _korvo_make_cert(otherca "/O=Tallowmar Test/OU=${KORVO_TEAM_OU}/CN=Korvo Impostor (${KORVO_TEAM_OU})"
    otherroot "${leaf_ext}\nextendedKeyUsage=codeSigning")
  file(GLOB keys ${KORVO_TEST_CA_DIR}/*.key)
  file(CHMOD ${keys} PERMISSIONS OWNER_READ OWNER_WRITE)
  file(WRITE ${KORVO_TEST_CA_DIR}/complete "")
endif()

set(KORVO_TEST_ANCHORS ${KORVO_TEST_CA_DIR}/root.pem)
set(KORVO_TEST_OTHER_ANCHORS ${KORVO_TEST_CA_DIR}/otherroot.pem)
foreach(signer team otherteam noeku)
  string(TOUPPER ${signer} S)
  set(KORVO_TEST_SIGNER_${S}_CERT ${KORVO_TEST_CA_DIR}/${signer}.pem)
  set(KORVO_TEST_SIGNER_${S}_KEY ${KORVO_TEST_CA_DIR}/${signer}.key)
  set(KORVO_TEST_SIGNER_${S}_CHAIN ${KORVO_TEST_CA_DIR}/intermediate.pem)
endforeach()
set(KORVO_TEST_SIGNER_OTHERCA_CERT ${KORVO_TEST_CA_DIR}/otherca.pem)
set(KORVO_TEST_SIGNER_OTHERCA_KEY ${KORVO_TEST_CA_DIR}/otherca.key)
set(KORVO_TEST_SIGNER_OTHERCA_CHAIN ${KORVO_TEST_CA_DIR}/otherroot.pem)

# The anchors compiled into the helper, as a byte array.
if(KORVO_CODESIGN_ANCHORS)
  set(KORVO_CODESIGN_ANCHORS_EFFECTIVE ${KORVO_CODESIGN_ANCHORS})
  set(KORVO_TEST_CA_TRUSTED OFF)
else()
  set(KORVO_CODESIGN_ANCHORS_EFFECTIVE ${KORVO_TEST_ANCHORS})
  set(KORVO_TEST_CA_TRUSTED ON)
endif()
if(NOT EXISTS ${KORVO_CODESIGN_ANCHORS_EFFECTIVE})
  message(FATAL_ERROR "KORVO_CODESIGN_ANCHORS: no such file: ${KORVO_CODESIGN_ANCHORS_EFFECTIVE}")
endif()
# A build that trusts its own test CA serves any client signed with a key that
# lies in its build tree: it must not be mistaken for a release.
if(KORVO_TEST_CA_TRUSTED)
  message(WARNING "KORVO_CODESIGN_ANCHORS is empty: this build trusts its own test signing CA "
    "(${KORVO_TEST_ANCHORS}, keys in the build tree). It is for tests, not a release; "
    "a release names the vendor's roots with -DKORVO_CODESIGN_ANCHORS=FILE.")
else()
  message(STATUS "Code-signing anchors (vendor's): ${KORVO_CODESIGN_ANCHORS}")
endif()
file(READ ${KORVO_CODESIGN_ANCHORS_EFFECTIVE} anchors_text)
if(NOT anchors_text MATCHES "-----BEGIN CERTIFICATE-----")
  message(FATAL_ERROR "KORVO_CODESIGN_ANCHORS: no PEM certificate in ${KORVO_CODESIGN_ANCHORS_EFFECTIVE}")
endif()
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${KORVO_CODESIGN_ANCHORS_EFFECTIVE})
file(READ ${KORVO_CODESIGN_ANCHORS_EFFECTIVE} anchors_hex HEX)
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," anchors_bytes "${anchors_hex}")
string(REPEAT "0x..," 16 sixteen_bytes)
string(REGEX REPLACE "(${sixteen_bytes})" "\\1\n" anchors_bytes "${anchors_bytes}")
file(CONFIGURE OUTPUT ${KORVO_GENERATED_DIR}/CodeSigningAnchorsData.inc CONTENT
  "// Generated from ${KORVO_CODESIGN_ANCHORS_EFFECTIVE}; do not edit.\n${anchors_bytes}\n" @ONLY)

if(KORVO_TEST_CA_TRUSTED)
  set(test_ca_trusted 1)
else()
  set(test_ca_trusted 0)
endif()
file(GENERATE OUTPUT ${KORVO_GENERATED_DIR}/TestSigning.h CONTENT
"// Generated by cmake/CodeSigning.cmake: the build's test signing identities.
#pragma once
#define KORVO_TEST_CA_DIR \"${KORVO_TEST_CA_DIR}\"
#define KORVO_TEST_ANCHORS \"${KORVO_TEST_ANCHORS}\"
#define KORVO_TEST_OTHER_ANCHORS \"${KORVO_TEST_OTHER_ANCHORS}\"
// 1 when the helper's compiled-in anchors are the test root above.
#define KORVO_TEST_CA_TRUSTED ${test_ca_trusted}
#define KORVO_TEST_TEAM_OU \"${KORVO_TEAM_OU}\"
#define KORVO_TEST_OTHER_TEAM_OU \"${KORVO_OTHER_TEAM_OU}\"
#define KORVO_TEST_SIGNER_TEAM_CERT \"${KORVO_TEST_SIGNER_TEAM_CERT}\"
#define KORVO_TEST_SIGNER_TEAM_KEY \"${KORVO_TEST_SIGNER_TEAM_KEY}\"
#define KORVO_TEST_SIGNER_TEAM_CHAIN \"${KORVO_TEST_SIGNER_TEAM_CHAIN}\"
#define KORVO_TEST_SIGNER_OTHERTEAM_CERT \"${KORVO_TEST_SIGNER_OTHERTEAM_CERT}\"
#define KORVO_TEST_SIGNER_OTHERTEAM_KEY \"${KORVO_TEST_SIGNER_OTHERTEAM_KEY}\"
#define KORVO_TEST_SIGNER_OTHERTEAM_CHAIN \"${KORVO_TEST_SIGNER_OTHERTEAM_CHAIN}\"
#define KORVO_TEST_SIGNER_OTHERCA_CERT \"${KORVO_TEST_SIGNER_OTHERCA_CERT}\"
#define KORVO_TEST_SIGNER_OTHERCA_KEY \"${KORVO_TEST_SIGNER_OTHERCA_KEY}\"
#define KORVO_TEST_SIGNER_OTHERCA_CHAIN \"${KORVO_TEST_SIGNER_OTHERCA_CHAIN}\"
#define KORVO_TEST_SIGNER_NOEKU_CERT \"${KORVO_TEST_SIGNER_NOEKU_CERT}\"
#define KORVO_TEST_SIGNER_NOEKU_KEY \"${KORVO_TEST_SIGNER_NOEKU_KEY}\"
#define KORVO_TEST_SIGNER_NOEKU_CHAIN \"${KORVO_TEST_SIGNER_NOEKU_CHAIN}\"
// The signing tool built with this tree.
#define KORVO_CODESIGN_TOOL_PATH \"$<TARGET_FILE:korvo-codesign>\"
")
target_include_directories(korvo PUBLIC ${KORVO_GENERATED_DIR})

# The version that the helper logs at start and korvoctl --version prints,
# "1.0 (221)"; a build that trusts the test CA says so in it.
set(korvo_version "${PROJECT_VERSION} (${KORVO_BUILD_NUMBER})")
if(KORVO_TEST_CA_TRUSTED)
  set(korvo_version "${PROJECT_VERSION} (${KORVO_BUILD_NUMBER}, test signing CA: not a release)")
endif()
file(CONFIGURE OUTPUT ${KORVO_GENERATED_DIR}/KorvoVersion.h CONTENT
"// Generated by cmake/CodeSigning.cmake; do not edit.
#pragma once
#define KORVO_VERSION \"${korvo_version}\"
// 1 when the compiled-in anchors are the build's own test root.
#define KORVO_TRUSTS_TEST_SIGNING_CA ${test_ca_trusted}
" @ONLY)

# The arguments of "korvo-codesign sign" for one of the test signers.
function(_korvo_codesign_signer_args out signer)
  string(TOUPPER "${signer}" S)
  if(NOT DEFINED KORVO_TEST_SIGNER_${S}_CERT)
    message(FATAL_ERROR "korvo_codesign: unknown SIGNER '${signer}' (team, otherteam, otherca, noeku)")
  endif()
  set(${out} --certificate ${KORVO_TEST_SIGNER_${S}_CERT} --chain ${KORVO_TEST_SIGNER_${S}_CHAIN}
      --key ${KORVO_TEST_SIGNER_${S}_KEY} PARENT_SCOPE)
endfunction()

function(korvo_codesign_target target)
  cmake_parse_arguments(A "" "IDENTIFIER;SIGNER" "" ${ARGN})
  if(NOT A_IDENTIFIER)
    message(FATAL_ERROR "korvo_codesign_target(${target}): IDENTIFIER is required")
  endif()
  if(NOT A_SIGNER)
    set(A_SIGNER team)
  endif()
  _korvo_codesign_signer_args(signer_args ${A_SIGNER})
  add_dependencies(${target} korvo-codesign)
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${KORVO_CODESIGN_TOOL} sign --identifier ${A_IDENTIFIER} ${signer_args} $<TARGET_FILE:${target}>
    COMMENT "Signing ${target} as ${A_IDENTIFIER} (${A_SIGNER})"
    VERBATIM)
endfunction()

function(korvo_codesign_file)
  cmake_parse_arguments(A "" "OUTPUT;INPUT;IDENTIFIER;SIGNER" "DEPENDS" ${ARGN})
  if(NOT A_OUTPUT OR NOT A_INPUT OR NOT A_IDENTIFIER)
    message(FATAL_ERROR "korvo_codesign_file: OUTPUT, INPUT and IDENTIFIER are required")
  endif()
  if(NOT A_SIGNER)
    set(A_SIGNER team)
  endif()
  _korvo_codesign_signer_args(signer_args ${A_SIGNER})
  add_custom_command(OUTPUT ${A_OUTPUT}
    COMMAND ${CMAKE_COMMAND} -E copy ${A_INPUT} ${A_OUTPUT}
    COMMAND ${KORVO_CODESIGN_TOOL} sign --identifier ${A_IDENTIFIER} ${signer_args} ${A_OUTPUT}
    DEPENDS ${A_INPUT} korvo-codesign ${A_DEPENDS}
    COMMENT "Signing a copy of ${A_INPUT} as ${A_IDENTIFIER} (${A_SIGNER})"
    VERBATIM)
endfunction()
