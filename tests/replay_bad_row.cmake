# stylus-replay on a directory of two recordings, one with rows it cannot use (a NaN written by an
# older recorder, a cut row, a timestamp going back): each such row is reported on standard error
# with its file and line, and both recordings, every other row of them included, are replayed.
set(run ${WORK_DIR}/replay-bad-row)
file(REMOVE_RECURSE ${run})
file(MAKE_DIRECTORY ${run}/recordings)
file(READ ${SOURCE_DIR}/tools/sample/sample_240hz.csv sample)
string(REGEX MATCHALL "[^\n]+" lines "${sample}")
list(SUBLIST lines 0 401 first)
list(SUBLIST lines 401 400 second)
list(GET lines 0 header)
# Lines 3, 101 and 202 of the first file made unusable; line 202 goes back to the first sample's time.
list(GET first 1 earliest)
string(REGEX REPLACE ",.*" "" earliest "${earliest}")
list(GET first 2 row)
string(REGEX REPLACE "^([0-9]+),[^,]+," "\\1,nan," row "${row}")
list(REMOVE_AT first 2)
list(INSERT first 2 "${row}")
list(REMOVE_AT first 100)
list(INSERT first 100 "12,34")
list(GET first 201 row)
string(REGEX REPLACE "^[0-9]+," "${earliest}," row "${row}")
list(REMOVE_AT first 201)
list(INSERT first 201 "${row}")
list(JOIN first "\n" text)
file(WRITE ${run}/recordings/a.csv "${text}\n")
list(JOIN second "\n" text)
file(WRITE ${run}/recordings/b.csv "${header}\n${text}\n")

execute_process(
  COMMAND ${REPLAY} --config ${SOURCE_DIR}/models/stylus_predictor.json --quiet --log ${run}/replay.log
          --json ${run}/summary.json ${run}/recordings
  RESULT_VARIABLE status OUTPUT_VARIABLE summary ERROR_VARIABLE errors)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "stylus-replay exited with ${status}:\n${errors}")
endif()
set(a ${run}/recordings/a.csv)
set(expected "stylus-replay: row skipped: ${a}:3: malformed row: x_pos \"nan\" is not a finite number
stylus-replay: row skipped: ${a}:101: malformed row \"12,34\": expected 7 fields, found 2
stylus-replay: row skipped: ${a}:202: timestamp ${earliest} goes backwards \\(line 201 has [0-9]+\\)
$")
if(NOT errors MATCHES "^${expected}")
  message(FATAL_ERROR "standard error:\n${errors}\nexpected:\n${expected}")
endif()
file(READ ${run}/summary.json content)
string(JSON inputs LENGTH "${content}" inputs)
string(JSON samples GET "${content}" counts samples)
string(JSON skipped GET "${content}" counts skipped_rows)
string(JSON skipped_a GET "${content}" recordings 0 counts skipped_rows)
string(JSON skipped_b GET "${content}" recordings 1 counts skipped_rows)
if(NOT inputs EQUAL 2 OR NOT samples EQUAL 797 OR NOT skipped EQUAL 3 OR NOT skipped_a EQUAL 3 OR NOT skipped_b EQUAL 0)
  message(FATAL_ERROR "replayed ${inputs} recordings, ${samples} samples, ${skipped} rows skipped (${skipped_a} + "
                      "${skipped_b}), expected 2, 797 and 3 (3 + 0):\n${content}")
endif()
if(NOT summary MATCHES "rows skipped +3\n")
  message(FATAL_ERROR "the summary does not count the skipped rows:\n${summary}")
endif()
