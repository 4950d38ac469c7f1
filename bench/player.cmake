# Player against the same playbin3 pipeline driven directly: CPU per played
# second and time to the first frame, with their ratios.
add_executable(bench_player "${CMAKE_CURRENT_SOURCE_DIR}/player_bench.cpp")
target_link_libraries(bench_player PRIVATE lumiflux benchmark::benchmark Threads::Threads)
target_compile_definitions(bench_player PRIVATE
  LUMIFLUX_BENCH_MEDIA_DIR="${CMAKE_BINARY_DIR}/bench-media")
