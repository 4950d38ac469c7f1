# Frames per second through lumiflux-gst-codecs next to the same GStreamer
# element in a plain pipeline; bench/run-codec-bench.sh builds and runs it.
if(TARGET lumiflux-gst-codecs)
  add_executable(bench_codecs "${CMAKE_CURRENT_LIST_DIR}/codec_bench.cpp")
  target_link_libraries(bench_codecs PRIVATE lumiflux benchmark::benchmark PkgConfig::GST)
  target_compile_definitions(bench_codecs PRIVATE LUMIFLUX_BUILD_PLUGIN_DIR="${LUMIFLUX_BUILD_PLUGIN_DIR}")
  add_dependencies(bench_codecs lumiflux-gst-codecs)
endif()
