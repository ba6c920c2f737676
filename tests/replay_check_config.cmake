# stylus-replay --check-config on the shipped configuration, named bare from its own directory, and on
# copies of it with a misspelt key and with a repeated key: exact lines and exit status.
set(run ${WORK_DIR}/replay-check-config)
file(REMOVE_RECURSE ${run})
file(MAKE_DIRECTORY ${run})
file(READ ${SOURCE_DIR}/models/stylus_predictor.json config)
string(JSON model GET "${config}" PredictionModel model_name)
file(COPY ${SOURCE_DIR}/models/stylus_predictor.json ${SOURCE_DIR}/models/${model} DESTINATION ${run})
string(REPLACE "\"use_raw_pressure\"" "\"use_raw_presure\"" misspelt "${config}")
file(WRITE ${run}/misspelt.json "${misspelt}")
string(REPLACE "\"num_predictions\": 5," "\"num_predictions\": 5, \"num_predictions\": 3," repeated "${config}")
file(WRITE ${run}/repeated.json "${repeated}")

function(check_config file expected_status expected_output)
  execute_process(COMMAND ${REPLAY} --check-config ${file} WORKING_DIRECTORY ${run}
                  RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE errors)
  if(NOT status STREQUAL expected_status OR NOT output STREQUAL expected_output)
    message(FATAL_ERROR "--check-config ${file}: exit ${status}, expected ${expected_status}\n"
                        "output:\n${output}\nexpected:\n${expected_output}\nstandard error:\n${errors}")
  endif()
endfunction()

check_config(stylus_predictor.json 0 "stylus_predictor.json: configuration OK\n")
check_config(misspelt.json 1 "misspelt.json: unknown key PredictionModel.use_raw_presure, ignored; nearest known key: \
PredictionModel.use_raw_pressure\nmisspelt.json: 1 problem\n")
check_config(repeated.json 1 "repeated.json: PredictionModel.num_predictions is given twice, first as \"5\", then as \
\"3\": only the first would be read\nrepeated.json: 1 problem\n")
