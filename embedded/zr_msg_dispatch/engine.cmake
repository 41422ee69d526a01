zr_platform_part(engine SOURCES connection.cpp delivery.cpp dispatcher.cpp engine.cpp exchange_queue.cpp io_loop.cpp resolver.cpp
                                session_channel.cpp
                 LIBRARIES PkgConfig::ACE Threads::Threads)
