# The runtime simulator's tests, in the one test binary, and the helpers that start a
# private session bus and the simulator for any test that needs a runtime on the bus.
# libpng reads back the simulator's PNGs independently of its encoder.

pkg_check_modules(LIBPNG REQUIRED IMPORTED_TARGET libpng)

target_sources(tavix_tests PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/CancellationTest.cpp
  ${CMAKE_CURRENT_LIST_DIR}/EditableTextTest.cpp
  ${CMAKE_CURRENT_LIST_DIR}/EventRecordingTest.cpp
  ${CMAKE_CURRENT_LIST_DIR}/RepliesTest.cpp
  ${CMAKE_CURRENT_LIST_DIR}/RequestRouterTest.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ScreenshotEncodingTest.cpp
  ${CMAKE_CURRENT_LIST_DIR}/SimulatorOptionsTest.cpp
  ${CMAKE_CURRENT_LIST_DIR}/SimulatorServiceTest.cpp
  ${CMAKE_CURRENT_LIST_DIR}/VirtualDesktopTest.cpp
  ${CMAKE_CURRENT_LIST_DIR}/../testing/PrivateSessionBus.cpp
  ${CMAKE_CURRENT_LIST_DIR}/../testing/RuntimeSimulatorProcess.cpp
  ${CMAKE_CURRENT_LIST_DIR}/../testing/SimulatorControl.cpp)
target_link_libraries(tavix_tests PRIVATE tavix_runtime PkgConfig::LIBPNG PkgConfig::SYSTEMD)
add_dependencies(tavix_tests TavixComputerUseRuntimeSimulator)
