# Tests of the host-side tools under tools/.
if(TARGET ReplayTest AND TARGET ReplayCore)
  target_link_libraries(ReplayTest PRIVATE ReplayCore)
  target_compile_definitions(ReplayTest PRIVATE
    STYLUS_REPLAY_SAMPLE="${CMAKE_SOURCE_DIR}/tools/sample/sample_240hz.csv")
  # Hook for runs of the tool itself: where the executable will be once it is built.
  if(TARGET stylus-replay)
    target_compile_definitions(ReplayTest PRIVATE STYLUS_REPLAY_EXE="$<TARGET_FILE:stylus-replay>")
  endif()
endif()

# The training code must build exactly the model input rows the library builds.
if(TARGET stylus-feature-dump AND EXISTS ${CMAKE_SOURCE_DIR}/models/stylus_predictor.json)
  stylus_host_runnable(feature_dump stylus-feature-dump)
  add_test(NAME FeatureParityWithTrainingCode
    COMMAND /usr/bin/python3 ${CMAKE_SOURCE_DIR}/tools/train/check_feature_parity.py
            ${feature_dump} ${CMAKE_SOURCE_DIR}/models/stylus_predictor.json
            ${CMAKE_SOURCE_DIR}/tools/sample/sample_240hz.csv)
endif()

# The main job on the shipped sample with the shipped model: the terminal gets the summary and the
# progress line only, and the model does better than the constant-velocity baseline at the longest
# horizon.
if(TARGET stylus-replay AND EXISTS ${CMAKE_SOURCE_DIR}/models/stylus_predictor.json)
  stylus_host_runnable(replay stylus-replay)
  add_test(NAME ReplayMainJobOnTheSample
    COMMAND ${CMAKE_COMMAND} -DREPLAY=${replay} -DSOURCE_DIR=${CMAKE_SOURCE_DIR}
            -DWORK_DIR=${CMAKE_CURRENT_BINARY_DIR} -P ${CMAKE_CURRENT_SOURCE_DIR}/replay_main_job.cmake)
  add_test(NAME ReplayChecksConfigurations
    COMMAND ${CMAKE_COMMAND} -DREPLAY=${replay} -DSOURCE_DIR=${CMAKE_SOURCE_DIR}
            -DWORK_DIR=${CMAKE_CURRENT_BINARY_DIR} -P ${CMAKE_CURRENT_SOURCE_DIR}/replay_check_config.cmake)
  add_test(NAME ReplaySkipsAndReportsRowsItCannotUse
    COMMAND ${CMAKE_COMMAND} -DREPLAY=${replay} -DSOURCE_DIR=${CMAKE_SOURCE_DIR}
            -DWORK_DIR=${CMAKE_CURRENT_BINARY_DIR} -P ${CMAKE_CURRENT_SOURCE_DIR}/replay_bad_row.cmake)
  add_test(NAME ReplayRefusesAMissingRecording
    COMMAND stylus-replay --quiet ${CMAKE_CURRENT_BINARY_DIR}/no-such-recording.csv)
  set_tests_properties(ReplayRefusesAMissingRecording PROPERTIES WILL_FAIL TRUE)
  # The --json summary against its committed schema, and the --report page in a real browser.
  set(replay_check /usr/bin/python3 ${CMAKE_CURRENT_SOURCE_DIR}/replay_outputs_check.py)
  add_test(NAME ReplayJsonMatchesItsSchema
    COMMAND ${replay_check} schema ${replay} ${CMAKE_SOURCE_DIR}/tools/sample/sample_240hz.csv
            ${CMAKE_SOURCE_DIR}/tools/replay/summary.schema.json)
  stylus_host_runnable(sample_gen stylus-sample-gen)
  add_test(NAME ReplayReportLoadsInTheBrowser
    COMMAND ${replay_check} browser ${replay} ${sample_gen} ${CMAKE_SOURCE_DIR}/tools/sample/sample_240hz.csv)
  set_tests_properties(ReplayJsonMatchesItsSchema ReplayReportLoadsInTheBrowser PROPERTIES SKIP_RETURN_CODE 77)
endif()

# The model card's tables from replay summaries whose answers are known.
add_test(NAME CardTablesFromReplaySummaries
  COMMAND /usr/bin/python3 ${CMAKE_SOURCE_DIR}/tools/train/test_card_tables.py)

# Resampled training and validation strokes: smooth positions, bounded pressure, library-like tags.
add_test(NAME TrainingStrokeResampling
  COMMAND /usr/bin/python3 ${CMAKE_SOURCE_DIR}/tools/train/test_resample.py)

# The training code's network: its .tflite export computes what it computes, and its constant
# layers compute least-squares, constant and longer-span velocities and the velocity roughness.
add_test(NAME TrainingNetworkAndExport
  COMMAND /usr/bin/python3 ${CMAKE_SOURCE_DIR}/tools/train/test_model_export.py)
# Without python3-torch it skips, saying so.
set_tests_properties(TrainingNetworkAndExport PROPERTIES SKIP_RETURN_CODE 77)

# The replay report's data and figures.
if(TARGET ReplayReportTest AND TARGET ReplayCore)
  target_link_libraries(ReplayReportTest PRIVATE ReplayCore)
endif()

# Training recordings read from a recorder's directory: leftovers and bad rows skipped and named.
add_test(NAME TrainingRecordingsFromDirectories
  COMMAND /usr/bin/python3 ${CMAKE_SOURCE_DIR}/tools/train/test_recordings.py)

# A short retraining from a directory in the recorder's format, in two processes, under torchrun and
# in one; the outputs load in the library. Skips (77) where python3-torch is missing.
if(TARGET stylus-replay AND EXISTS ${CMAKE_SOURCE_DIR}/models/stylus_predictor.json)
  stylus_host_runnable(train_replay stylus-replay)
  add_test(NAME TrainingFromRecorderDirectory
    COMMAND /usr/bin/python3 ${CMAKE_SOURCE_DIR}/tools/train/test_training_run.py ${train_replay}
            ${CMAKE_SOURCE_DIR}/models/stylus_predictor.json)
  set_tests_properties(TrainingFromRecorderDirectory PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 900)
endif()

# The replay's peers: predictors, resampling, the peers file, the tuning tool and the overshoot.
if(TARGET PeersTest AND TARGET ReplayCore AND TARGET stylus-tune-peers)
  target_link_libraries(PeersTest PRIVATE ReplayCore)
  stylus_host_runnable(tune_peers stylus-tune-peers)
  target_compile_definitions(PeersTest PRIVATE
    STYLUS_TUNE_PEERS_EXE="${tune_peers}"
    STYLUS_SHIPPED_CONFIG="${CMAKE_SOURCE_DIR}/models/stylus_predictor.json")
  add_dependencies(PeersTest stylus-tune-peers)
endif()

# Leave-one-source-out validation: device conditions, the numpy peers on strokes with known
# answers, overshoot and drop bookkeeping, tuning on the other sources only.
add_test(NAME TrainingLeaveOneSourceOut
  COMMAND /usr/bin/python3 ${CMAKE_SOURCE_DIR}/tools/train/test_loso.py)

# The fast-pen line fallback: the least-squares line of the peers, a gate on the sample gap, and
# an exported graph that computes both.
add_test(NAME TrainingFastPenFallback
  COMMAND /usr/bin/python3 ${CMAKE_SOURCE_DIR}/tools/train/test_filter_blend.py)
set_tests_properties(TrainingLeaveOneSourceOut TrainingFastPenFallback PROPERTIES SKIP_RETURN_CODE 77)

# The validation's numpy peers predict what the replay's peers predict, given the same parameters.
if(TARGET stylus-replay AND EXISTS ${CMAKE_SOURCE_DIR}/models/stylus_predictor.peers.json)
  stylus_host_runnable(parity_replay stylus-replay)
  add_test(NAME TrainingPeersMatchReplayPeers
    COMMAND /usr/bin/python3 ${CMAKE_SOURCE_DIR}/tools/train/check_peer_parity.py ${parity_replay}
            ${CMAKE_SOURCE_DIR}/models/stylus_predictor.peers.json)
  set_tests_properties(TrainingPeersMatchReplayPeers PROPERTIES SKIP_RETURN_CODE 77)
endif()
