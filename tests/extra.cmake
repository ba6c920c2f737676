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
