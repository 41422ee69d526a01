find_package(OpenSSL REQUIRED)
zr_platform_part(engine SOURCES connection.cpp delivery.cpp dispatcher.cpp engine.cpp exchange_queue.cpp io_loop.cpp resolver.cpp
                                session_channel.cpp session_channel_connection.cpp session_keeper.cpp
                                tls_stream.cpp
                 LIBRARIES PkgConfig::ACE OpenSSL::SSL Threads::Threads)
