# Writes the operations of some interfaces of the remote contract, in the
# order of the IDL, into a C++ header for the servant request fuzz target:
#
#   cmake -DIDL=Proxy.idl -DINTERFACES="StorageServer;Image" -DOUT=ContractOperations.h -P ContractOperations.cmake
#
# Read from the IDL at build time, so that an operation added to the
# contract is fuzzed without anyone listing it.  Each entry tells whether
# the operation hands back an object of the contract (its return type is
# one of the interfaces declared in the IDL), which the caller must close.
cmake_minimum_required(VERSION 3.18)
file(READ ${IDL} text)

string(REGEX MATCHALL "interface [A-Za-z_][A-Za-z0-9_]*;" declared "${text}")
string(REGEX REPLACE "interface ([A-Za-z_][A-Za-z0-9_]*);" "\\1" objectTypes "${declared}")

get_filename_component(idlName ${IDL} NAME)
set(header "// Made by ContractOperations.cmake from ${idlName}; do not edit.\n")
string(APPEND header "#pragma once\n\nnamespace keldfuzz {\n\n")
string(APPEND header "struct ContractOperation {\n    const char* name;\n    bool returnsObject;\n};\n")
foreach(interface ${INTERFACES})
  # An interface's body holds operations only, so it ends at its first '}'.
  string(REGEX MATCH "interface ${interface} {[^}]*}" body "${text}")
  if(NOT body)
    message(FATAL_ERROR "interface ${interface} not found in ${IDL}")
  endif()
  string(REGEX MATCHALL "[A-Za-z_][A-Za-z0-9_]*[ \t\r\n]+[A-Za-z_][A-Za-z0-9_]*\\(" operations "${body}")
  string(APPEND header "\nconst ContractOperation k${interface}Operations[] = {\n")
  foreach(operation ${operations})
    string(REGEX REPLACE "^([A-Za-z0-9_]+)[ \t\r\n]+([A-Za-z0-9_]+)\\($" "\\1" returnType "${operation}")
    string(REGEX REPLACE "^([A-Za-z0-9_]+)[ \t\r\n]+([A-Za-z0-9_]+)\\($" "\\2" name "${operation}")
    if(returnType IN_LIST objectTypes)
      string(APPEND header "    {\"${name}\", true},\n")
    else()
      string(APPEND header "    {\"${name}\", false},\n")
    endif()
  endforeach()
  string(APPEND header "};\n")
endforeach()
string(APPEND header "\n} // namespace keldfuzz\n")

# Rewritten only when it changes, so that an unrelated edit of the IDL
# recompiles nothing.
file(WRITE ${OUT}.new "${header}")
execute_process(COMMAND ${CMAKE_COMMAND} -E copy_if_different ${OUT}.new ${OUT})
file(REMOVE ${OUT}.new)
