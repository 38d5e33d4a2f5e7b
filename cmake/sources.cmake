# The daemon's library sources, listed once for the main build, the fuzz targets and the
# Google Benchmark program. Paths are relative to the repository's src/ folder.
set(EKADCDF_CORE_SOURCES
    support/buffer.cc support/error.cc support/faults.cc support/files.cc support/notify.cc
    support/pidfile.cc support/signals.cc support/spill_file.cc support/textfile.cc
    support/tokenizer.cc support/trace.cc
    stream/audit_input.cc stream/audit_sources.cc stream/checkpoint.cc stream/commit.cc
    stream/generations.cc
    stream/line_reader.cc stream/output_names.cc stream/position.cc stream/restart.cc
    stream/rotated_files.cc stream/section_reader.cc
    record/fields.cc record/recipients.cc record/record_writer.cc
    convert/admin.cc convert/catalogue.cc convert/engine.cc convert/gateways.cc convert/notes.cc
    convert/sections.cc convert/subsystem.cc convert/transfer.cc
    app/args.cc app/metrics.cc app/outer_block.cc app/process_loop.cc)

# A static library `name` of those sources under `src_dir`, which its users include from, with
# the version string the program reports.
function(ekadcdf_add_core name src_dir version)
  list(TRANSFORM EKADCDF_CORE_SOURCES PREPEND ${src_dir}/ OUTPUT_VARIABLE paths)
  add_library(${name} STATIC ${paths})
  target_include_directories(${name} PUBLIC ${src_dir})
  find_package(Threads REQUIRED)
  find_package(ZLIB REQUIRED)
  target_link_libraries(${name} PUBLIC Threads::Threads ZLIB::ZLIB)
  target_compile_definitions(${name} PRIVATE EKADCDF_VERSION="${version}")
endfunction()
