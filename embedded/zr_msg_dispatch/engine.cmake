find_package(OpenSSL REQUIRED)
zr_platform_part(engine SOURCES authenticator.cpp connection.cpp connection_opening.cpp delivery.cpp dispatcher.cpp engine.cpp
                                exchange_queue.cpp host_orders.cpp http_head.cpp http_tunnel.cpp io_loop.cpp resolver.cpp
                                session_channel.cpp session_channel_connection.cpp session_channel_orders.cpp session_channel_own.cpp
                                session_keeper.cpp tls_stream.cpp wire_trace.cpp
                 LIBRARIES zr_platform_tw_util PkgConfig::ACE OpenSSL::SSL Threads::Threads)
