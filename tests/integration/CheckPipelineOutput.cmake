# Runs `zul-agent` with no arguments, as a newcomer would, and checks what it
# prints line by line: banner, encoder, one line per frame, totals.
execute_process(COMMAND ${AGENT} OUTPUT_VARIABLE out RESULT_VARIABLE rc TIMEOUT 30)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "zul-agent exited with ${rc}\n${out}")
endif()
string(REGEX REPLACE "\n+" "\n" out "${out}")
string(REGEX MATCHALL "frame #" frames "${out}")
list(LENGTH frames frames)
if(frames LESS 27 OR frames GREATER 30)
  message(FATAL_ERROR "expected 27-30 frames in three seconds at 10 per second, got ${frames}\n${out}")
endif()
set(expected "Zul Linux agent — skeleton build (backend: fake)\nencoder: fake-h264, hardware=false\n")
set(key true)
foreach(i RANGE 1 ${frames})
  string(APPEND expected "frame #${i}: 13 bytes annexB, key=${key}\n")
  set(key false)
endforeach()
math(EXPR bytes "${frames} * 13")
string(APPEND expected "stopped: ${frames} frame(s) encoded, ${bytes} total bytes\n")
if(NOT out STREQUAL expected)
  message(FATAL_ERROR "zul-agent printed\n${out}\ninstead of\n${expected}")
endif()

# --help: exit 0, every mode and setting named, nothing wider than a terminal.
execute_process(COMMAND ${AGENT} --real-agent --help OUTPUT_VARIABLE help RESULT_VARIABLE rc
                ERROR_VARIABLE err TIMEOUT 30)
if(NOT rc EQUAL 0 OR NOT err STREQUAL "")
  message(FATAL_ERROR "--help exited with ${rc}: ${err}")
endif()
foreach(word --real-agent --phone-demo --webrtc-smoke --real ZUL_SIGNALING_URL ZUL_VERBOSE
        ZUL_DEMO_SECONDS ZUL_SECRET_BACKEND ZUL_MAX_FPS)
  string(FIND "${help}" "${word}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "--help does not mention ${word}:\n${help}")
  endif()
endforeach()
string(REPLACE "\n" ";" helpLines "${help}")
foreach(line IN LISTS helpLines)
  string(LENGTH "${line}" width)
  if(width GREATER 80)
    message(FATAL_ERROR "--help line wider than 80 columns: '${line}'")
  endif()
endforeach()

# The WebRTC library keeps its warnings to itself unless asked: one line, no stderr.
execute_process(COMMAND ${AGENT} --webrtc-smoke OUTPUT_VARIABLE out ERROR_VARIABLE err
                RESULT_VARIABLE rc TIMEOUT 30)
if(NOT rc EQUAL 0 OR NOT err STREQUAL "" OR
   NOT out STREQUAL "webrtc smoke test: OK (factory + peer connection created and closed)\n")
  message(FATAL_ERROR "--webrtc-smoke printed more than its result (${rc}):\n${out}${err}")
endif()

# --real on a private X server: the real pair's banner and encoder, three
# seconds of frames at 10 per second, the first a key frame.
execute_process(COMMAND xvfb-run -a -s "-screen 0 1280x720x24" ${AGENT} --real
                OUTPUT_VARIABLE out RESULT_VARIABLE rc TIMEOUT 60)
string(REGEX MATCHALL "frame #[0-9]+: [0-9]+ bytes annexB" frames "${out}")
list(LENGTH frames frames)
if(NOT rc EQUAL 0 OR frames LESS 27 OR frames GREATER 31 OR NOT out MATCHES
   "^Zul Linux agent — skeleton build \\(backend: x11\\+libav\\)\nencoder: libav-h264/[^ ]+, hardware=(true|false)\nframe #1: [0-9]+ bytes annexB, key=true\n.*\nstopped: ")
  message(FATAL_ERROR "zul-agent --real (${rc}, ${frames} frames) printed\n${out}")
endif()
