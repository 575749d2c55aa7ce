# Runs the C example on the shipped recording and checks that it reports one
# segment per spoken sentence, each covering its sentence: the start is dated up
# to 7 frames (140 ms) before the first loud frame and the end falls within the
# end-of-speech timeout (420 ms) plus a smoothing frame after the last one.
execute_process(COMMAND ${EXAMPLE} ${DATA}/speech16k.wav OUTPUT_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "example failed (${rc}):\n${out}")
endif()
file(STRINGS ${DATA}/speech16k.txt truth REGEX "^[0-9]")
string(REGEX MATCHALL "\n[0-9]+ +[0-9]+ +[0-9]+ " rows "${out}")
list(LENGTH rows found)
list(LENGTH truth want)
if(NOT found EQUAL want)
  message(FATAL_ERROR "expected ${want} segments, found ${found}:\n${out}")
endif()
foreach(i RANGE 1 ${want})
  math(EXPR k "${i} - 1")
  list(GET rows ${k} row)
  list(GET truth ${k} t)
  string(REGEX MATCHALL "[0-9]+" r "${row}")
  string(REGEX MATCHALL "[0-9]+" s "${t}")
  list(GET r 1 start)
  list(GET r 2 end)
  list(GET s 1 tstart)
  list(GET s 2 tend)
  # 140 ms early at most, plus up to one frame because the frame holding the
  # onset may begin before it; onsets in the recording are soft, so allow up to
  # 100 ms late. The end lies after the sentence by at most 420 + 100 ms.
  math(EXPR lo "${tstart} - 2240 - 320")
  math(EXPR hi "${tstart} + 1600")
  math(EXPR elo "${tend}")
  math(EXPR ehi "${tend} + 8320")
  if(start LESS lo OR start GREATER hi OR end LESS elo OR end GREATER ehi)
    message(FATAL_ERROR "segment ${i}: ${start}..${end} does not cover ${tstart}..${tend} as expected:\n${out}")
  endif()
endforeach()
message(STATUS "${out}")
