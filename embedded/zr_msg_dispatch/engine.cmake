find_package(OpenSSL REQUIRED)
zr_platform_part(engine SOURCES connection.cpp delivery.cpp dispatcher.cpp engine.cpp exchange_queue.cpp io_loop.cpp resolver.cpp
                                session_channel.cpp tls_stream.cpp
                 LIBRARIES PkgConfig::ACE OpenSSL::SSL Threads::Threads)
