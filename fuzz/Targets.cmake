# The fuzz targets, one source file each in fuzz/; a target's name (its corpus and regressions
# folder) is its file name in snake case: PortFrames.cpp is port_frames. Shared by fuzz/CMakeLists.txt
# (the libFuzzer programs) and tests/CMakeLists.txt (the regression test replays through the same
# functions).
set(TW_FUZZ_TARGETS
  PortFrames InjectorRequests HidLines NotificationPayloads
  BmpFiles DisplayHeader
  PlistBytes UserDefaults LocationsTable InfoPlists
  EncryptedScripts ScaleScreen)
# Not yet here: the timers' keyed archive (no reader of it exists yet); it gets a target with it.
