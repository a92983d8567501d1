install(TARGETS quorlin LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES
  converter/Quorlin.h converter/CommonFun.h converter/AES.h converter/ADTSFrame.h
  converter/CLS_SingleAviIndex.h os/libos.h util/platform.h util/common_fun.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quorlin)
