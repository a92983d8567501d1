# libquorlin.so: C++ without the C++ library. The C compiler links it, so that nothing but libc can come in.
set(QUORLIN_SOURCES
  util/platform.cpp
  util/common_fun_text.cpp
  util/common_fun_address.cpp
  util/common_fun_number.cpp
  util/common_fun_time.cpp
  os/libos_log.cpp
  os/libos_thread.cpp
  os/libos_dlist.cpp
  os/libos_ringbuf.cpp
  os/libos_text.cpp
  os/libos_slots.cpp
  os/libos_watch.cpp
  os/libos_socket.cpp
  os/libos_main_lock.cpp
  os/libos_loop.cpp
  os/libos_timer.cpp
  os/libos_post.cpp
  os/libos_tcp_server.cpp
  os/libos_tcp_client.cpp
  os/libos_udp_client.cpp
  os/libos_comm_client.cpp
  converter/CommonFun.cpp
  converter/AES.cpp
  converter/ADTSFrame.cpp
  converter/CLS_SingleAviIndex.cpp
  converter/Quorlin_job.cpp
  converter/Quorlin_prepare.cpp
  converter/Quorlin_search.cpp
  converter/Quorlin_audio_defaults.cpp
  converter/Quorlin_output.cpp
  converter/Quorlin_avi.cpp
  converter/Quorlin_index.cpp
  converter/Quorlin_decrypt.cpp
  converter/Quorlin_recorder.cpp
  converter/Quorlin_report.cpp
  converter/Quorlin_late_audio.cpp
  converter/Quorlin_running.cpp
  converter/Quorlin_file.cpp
  converter/Quorlin_window.cpp
  converter/Quorlin_conversion.cpp
  converter/Quorlin_changefile.cpp
  converter/Quorlin_entry.cpp
  converter/Quorlin_stream.cpp)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  list(APPEND QUORLIN_SOURCES util/arm_unwind.cpp)
endif()

# One list of exported names makes the linker's map; a test holds the built library against the same list.
set(QUORLIN_EXPORT_LIST ${CMAKE_SOURCE_DIR}/cmake/exports.txt)
set(QUORLIN_EXPORT_MAP ${CMAKE_BINARY_DIR}/quorlin.map)
file(STRINGS ${QUORLIN_EXPORT_LIST} exported_names REGEX "^[A-Za-z_]")
list(JOIN exported_names ";\n    " exported_names)
file(CONFIGURE OUTPUT ${QUORLIN_EXPORT_MAP} CONTENT "{\n  global:\n    @exported_names@;\n  local: *;\n};\n" @ONLY)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${QUORLIN_EXPORT_LIST})

add_library(quorlin SHARED ${QUORLIN_SOURCES})
set_target_properties(quorlin PROPERTIES
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR}
  LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}
  LINKER_LANGUAGE C
  LINK_DEPENDS ${QUORLIN_EXPORT_MAP}
  CXX_VISIBILITY_PRESET hidden
  VISIBILITY_INLINES_HIDDEN ON)
target_include_directories(quorlin PUBLIC
  $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/converter>
  $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/os>
  $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/util>)
target_compile_definitions(quorlin PRIVATE QUORLIN_BUILDING _FILE_OFFSET_BITS=64)
target_compile_options(quorlin PRIVATE
  -Wconversion -Wno-sign-conversion
  -fno-exceptions -fno-rtti -fno-threadsafe-statics
  # A caller's own destructors run when its thread is cancelled in here, and its backtraces pass through us.
  -fasynchronous-unwind-tables
  -ffunction-sections -fdata-sections)
quorlin_harden(quorlin)
# -Bsymbolic-functions: another library's encrypt() or Initialize() must not step between our own calls.
# nodelete: the loop's threads never end, so their code stays where it is.
target_link_options(quorlin PRIVATE
  -Wl,--version-script=${QUORLIN_EXPORT_MAP} -Wl,-Bsymbolic-functions
  -Wl,--gc-sections -Wl,-z,relro -Wl,-z,now -Wl,-z,nodelete)
if(NOT QUORLIN_SANITIZE)
  target_link_options(quorlin PRIVATE -Wl,--no-undefined)
endif()
find_package(Threads REQUIRED)
target_link_libraries(quorlin PRIVATE Threads::Threads)
