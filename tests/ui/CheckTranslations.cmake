# Fails when a text the client shows has no translation: lupdate scans the
# sources into a copy of each translations/tarnwick_<lang>.ts, and every
# message it leaves unfinished is listed.
#   cmake -DLUPDATE=... -DSOURCE_DIR=... -DWORK_DIR=... -P CheckTranslations.cmake
file(GLOB ts_files "${SOURCE_DIR}/translations/tarnwick_*.ts")
if(NOT ts_files)
  message(FATAL_ERROR "No translation files in ${SOURCE_DIR}/translations")
endif()
file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}")
set(failed FALSE)
foreach(ts IN LISTS ts_files)
  get_filename_component(name "${ts}" NAME)
  set(copy "${WORK_DIR}/${name}")
  file(COPY_FILE "${ts}" "${copy}")
  execute_process(
    COMMAND "${LUPDATE}" -silent -locations none "${SOURCE_DIR}/src" -ts "${copy}"
    RESULT_VARIABLE result
    ERROR_VARIABLE errors)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "lupdate failed on ${name}: ${errors}")
  endif()
  file(READ "${copy}" text)
  # One entry per message: <source>...</source> then its <translation>.
  string(REGEX MATCHALL "<source>[^<]*</source>[ \n\r\t]*<translation type=\"unfinished\""
         unfinished "${text}")
  list(LENGTH unfinished count)
  if(count GREATER 0)
    set(failed TRUE)
    message("${name}: ${count} text(s) without a translation:")
    foreach(entry IN LISTS unfinished)
      string(REGEX REPLACE "<source>([^<]*)</source>.*" "\\1" source "${entry}")
      message("  ${source}")
    endforeach()
  else()
    message("${name}: every text has a translation")
  endif()
endforeach()
if(failed)
  message(FATAL_ERROR "Translations are incomplete: add the texts above to translations/ "
                      "(scripts/update-translations brings new texts into the files).")
endif()
