# The driver's sources, for the host build and for qrndisk.sys alike.
set(QRN_DRIVER_SOURCES
    startup/driver_entry.cpp
    startup/low_memory.cpp
    startup/boot_record.cpp
    startup/handshake.cpp
    startup/settings.cpp
    startup/memory_probe.cpp
    startup/image_search.cpp
    startup/disk_table.cpp
    miniport/adapter.cpp
    miniport/start_io.cpp
    miniport/scsi_commands.cpp
    miniport/completion.cpp
    engine/worker.cpp
    engine/chunk.cpp
    engine/route.cpp
    engine/local_cache.cpp
    engine/image_route.cpp
    net/servers.cpp
    net/packet.cpp
    net/exchange.cpp
    net/receive.cpp
    net/status_poll.cpp
    net/shutdown_notice.cpp
    net/machine_reset.cpp)
list(TRANSFORM QRN_DRIVER_SOURCES PREPEND ${CMAKE_CURRENT_LIST_DIR}/)
