# 32-bit x86 programs on an x86-64 Debian: g++-multilib compiles, the i386 packages supply libraries.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
set(CMAKE_C_FLAGS_INIT -m32)
set(CMAKE_CXX_FLAGS_INIT -m32)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(CMAKE_LIBRARY_PATH /usr/lib/i386-linux-gnu)
set(CMAKE_IGNORE_PATH /usr/lib/x86_64-linux-gnu /usr/lib/x86_64-linux-gnu/cmake)
# The i386 -dev packages cannot stand beside their x86-64 twins while the two archives are a revision
# apart; headers and shared objects are all that is needed of them.
set(SQLite3_LIBRARY /usr/lib/i386-linux-gnu/libsqlite3.so.0 CACHE FILEPATH "")
set(SQLite3_INCLUDE_DIR /usr/include CACHE PATH "")
set(GTest_DIR /usr/lib/i386-linux-gnu/cmake/GTest CACHE PATH "")
set(Nettle_LIBRARY /usr/lib/i386-linux-gnu/libnettle.so.8 CACHE FILEPATH "")
set(Nettle_INCLUDE_DIR /usr/include CACHE PATH "")
set(XCB_LIBRARY /usr/lib/i386-linux-gnu/libxcb.so.1 CACHE FILEPATH "")
