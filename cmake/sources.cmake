# The daemon's library sources, listed once for the main build, the fuzz targets and the
# Google Benchmark program. Paths are relative to the repository's src/ folder.
set(EKADCDF_CORE_SOURCES
    support/buffer.cc support/error.cc support/faults.cc support/files.cc support/notify.cc
    support/pidfile.cc support/signals.cc support/tokenizer.cc support/trace.cc
    stream/audit_input.cc stream/checkpoint.cc stream/commit.cc stream/generations.cc
    stream/line_reader.cc stream/output_names.cc stream/position.cc stream/restart.cc
    stream/section_reader.cc
    record/fields.cc record/recipients.cc record/record_writer.cc
    convert/admin.cc convert/catalogue.cc convert/engine.cc convert/gateways.cc convert/notes.cc
    convert/sections.cc convert/subsystem.cc convert/transfer.cc
    app/args.cc app/outer_block.cc app/process_loop.cc)

# The same, as absolute paths under `src_dir`, into the variable named `out`.
function(ekadcdf_core_sources src_dir out)
  list(TRANSFORM EKADCDF_CORE_SOURCES PREPEND ${src_dir}/ OUTPUT_VARIABLE paths)
  set(${out} ${paths} PARENT_SCOPE)
endfunction()
