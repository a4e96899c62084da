# Run by CPack on the staged files before it builds the package: the manual
# pages and the changelog compressed as Debian wants them (gzip -9n: no name
# or time stamp inside, so the package is reproducible).
file(GLOB_RECURSE RTFCONV_TO_COMPRESS
  ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/share/man/man*/*
  ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*/share/doc/*/changelog)
foreach(file ${RTFCONV_TO_COMPRESS})
  if(NOT file MATCHES "\\.gz$")
    execute_process(COMMAND gzip -9nf ${file} RESULT_VARIABLE status)
    if(NOT status EQUAL 0)
      message(FATAL_ERROR "gzip ${file} failed")
    endif()
  endif()
endforeach()
