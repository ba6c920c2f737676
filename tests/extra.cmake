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
  add_test(NAME FeatureParityWithTrainingCode
    COMMAND /usr/bin/python3 ${CMAKE_SOURCE_DIR}/tools/train/check_feature_parity.py
            $<TARGET_FILE:stylus-feature-dump> ${CMAKE_SOURCE_DIR}/models/stylus_predictor.json
            ${CMAKE_SOURCE_DIR}/tools/sample/sample_240hz.csv)
endif()
