# Lays out the console pages in OUT: each of PAGES (relative to SRC), the MD5 library and its
# licence in js/vendor, then a "gzip -9n" copy of every file (-n: no name or time inside, so
# the same pages give the same bytes).
file(REMOVE_RECURSE ${OUT})
string(REPLACE "|" ";" PAGES "${PAGES}")
foreach(page ${PAGES})
  get_filename_component(dir ${page} DIRECTORY)
  file(COPY ${SRC}/${page} DESTINATION ${OUT}/${dir})
endforeach()
file(COPY ${MD5_JS} DESTINATION ${OUT}/js/vendor)
file(COPY_FILE ${MD5_LICENSE} ${OUT}/js/vendor/md5.LICENSE.txt)
file(GLOB_RECURSE staged LIST_DIRECTORIES false ${OUT}/*)
execute_process(COMMAND ${GZIP} -9nkf ${staged} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "gzip failed on the console pages")
endif()
