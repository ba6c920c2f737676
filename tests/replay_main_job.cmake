# Runs stylus-replay on the shipped sample as a person would: from a directory holding a copy of the
# shipped configuration, named bare. The terminal gets the summary on standard output and at most the
# progress line on standard error; the library's log lines go to the log file the summary names.
set(run ${WORK_DIR}/replay-main-job)
file(REMOVE_RECURSE ${run})
file(MAKE_DIRECTORY ${run})
file(READ ${SOURCE_DIR}/models/stylus_predictor.json config)
string(JSON model GET "${config}" PredictionModel model_name)
file(COPY ${SOURCE_DIR}/models/stylus_predictor.json ${SOURCE_DIR}/models/${model} DESTINATION ${run})

set(json ${run}/replay-sample.json)
execute_process(
  COMMAND ${REPLAY} --config stylus_predictor.json --json ${json} ${SOURCE_DIR}/tools/sample/sample_240hz.csv
  WORKING_DIRECTORY ${run}
  RESULT_VARIABLE status OUTPUT_VARIABLE summary ERROR_VARIABLE terminal)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "stylus-replay exited with ${status}:\n${summary}\n${terminal}")
endif()
foreach(heading "Counts" "where every predictor predicts" "charged as \"no prediction\"" "Per recording at +"
        "macro average" "Library metrics (online; not comparable" "Latency, us")
  string(FIND "${summary}" "${heading}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "summary lacks \"${heading}\":\n${summary}")
  endif()
endforeach()
string(REGEX MATCH "^Replay of 1 recording with stylus_predictor.json\n.*\n\nLibrary log: stylus-replay.log\n$" whole
       "${summary}")
if(NOT whole)
  message(FATAL_ERROR "the summary does not run from its first line to the log file's name:\n${summary}")
endif()
# Off a terminal the progress line is an occasional plain line; nothing else may reach standard error.
string(REGEX REPLACE "recording [0-9]+/[0-9]+ [^\n]*: [0-9]+/[0-9]+ batches \\([0-9]+%\\)\n" "" rest "${terminal}")
if(NOT rest STREQUAL "")
  message(FATAL_ERROR "more than the progress line on standard error:\n${terminal}")
endif()
file(READ ${run}/stylus-replay.log log)
foreach(line " I StylusPredictor-params " " I StylusPredictor ")
  string(FIND "${log}" "${line}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "the library log lacks \"${line}\":\n${log}")
  endif()
endforeach()

file(READ ${json} content)
string(JSON refused GET "${content}" counts refused_batches)
string(JSON predictions GET "${content}" counts predictions)
if(NOT refused EQUAL 0 OR predictions LESS 1000)
  message(FATAL_ERROR "unexpected counts: ${refused} refused, ${predictions} predictions")
endif()
string(JSON logged GET "${content}" library_log)
if(NOT logged STREQUAL "stylus-replay.log")
  message(FATAL_ERROR "the JSON names the log \"${logged}\"")
endif()
string(JSON last LENGTH "${content}" horizons)
math(EXPR last "${last} - 1")
string(JSON horizon GET "${content}" horizons ${last} ms)
string(JSON model GET "${content}" horizons ${last} drops_charged model mean_mm)
string(JSON baseline GET "${content}" horizons ${last} drops_charged constant_velocity mean_mm)
if(NOT model LESS baseline)
  message(FATAL_ERROR "at +${horizon} ms the model's mean error ${model} mm is not below the baseline's ${baseline} mm")
endif()
message(STATUS "+${horizon} ms, drops charged: model ${model} mm, constant velocity ${baseline} mm")

# --verbose: the library's lines on the terminal as before, and no log file.
file(REMOVE ${run}/stylus-replay.log)
execute_process(
  COMMAND ${REPLAY} --verbose --quiet --config stylus_predictor.json ${SOURCE_DIR}/tools/sample/sample_240hz.csv
  WORKING_DIRECTORY ${run}
  RESULT_VARIABLE status OUTPUT_VARIABLE summary ERROR_VARIABLE terminal)
string(FIND "${terminal}" " I StylusPredictor-params " at)
if(NOT status EQUAL 0 OR at EQUAL -1 OR EXISTS ${run}/stylus-replay.log)
  message(FATAL_ERROR "--verbose: status ${status}, standard error:\n${terminal}")
endif()
string(FIND "${summary}" "Library log:" at)
if(NOT at EQUAL -1)
  message(FATAL_ERROR "--verbose names a log file:\n${summary}")
endif()

# On a terminal (a pseudo-terminal from util-linux's script): the progress line in its final state,
# then the summary, and nothing else.
find_program(SCRIPT script)
if(SCRIPT)
  file(REMOVE ${run}/stylus-replay.log)
  execute_process(
    COMMAND ${SCRIPT} -qfec "${REPLAY} --config stylus_predictor.json ${SOURCE_DIR}/tools/sample/sample_240hz.csv"
            /dev/null
    WORKING_DIRECTORY ${run}
    RESULT_VARIABLE status OUTPUT_VARIABLE screen ERROR_VARIABLE ignored)
  string(ASCII 27 escape)
  string(REPLACE "\r${escape}[K" "" screen "${screen}")
  string(REPLACE "\r" "" screen "${screen}")
  string(REGEX MATCH
         "^recording 1/1 [^\n]*sample_240hz.csv: ([0-9]+)/([0-9]+) batches \\(100%\\)\nReplay of 1 recording [^\n]*\n.*\n\nLibrary log: stylus-replay.log\n$"
         whole "${screen}")
  if(NOT status EQUAL 0 OR NOT whole OR NOT CMAKE_MATCH_1 EQUAL CMAKE_MATCH_2 OR NOT EXISTS ${run}/stylus-replay.log)
    message(FATAL_ERROR "on a terminal (status ${status}) more or less than the progress line and the summary:\n${screen}")
  endif()
endif()
