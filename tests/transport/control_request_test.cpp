#include <cstring>
#include <vector>

#include "machine/transport/simulated_network.h"
#include "machine/transport/transport.h"
#include "tests/transport/transport_client.h"

namespace {

class ControlRequest : public testing::Test {
protected:
    machine::Machine machine;
    machine::SimulatedNetwork network{machine.scheduler(), 1};

    void run(std::function<void()> body)
    {
        EXPECT_EQ(machine.run(std::move(body)), machine::Outcome::finished);
    }
};

TEST_F(ControlRequest, Without_a_transport_there_is_no_device)
{
    run([] {
        std::uint8_t block[360] = {};
        EXPECT_FALSE(NT_SUCCESS(control(handshake_code, block, sizeof block, nullptr, 0).returned));
    });
}

TEST_F(ControlRequest, Lengths_and_codes_are_checked)
{
    machine::Transport& transport = machine.add_transport(network);
    const struct {
        ULONG code, input_bytes, output_bytes;
        NTSTATUS status;
        ULONG_PTR information;
    } cases[] = {
        {handshake_code, 360, 20, STATUS_SUCCESS, 20},
        {handshake_code, 400, 64, STATUS_SUCCESS, 20},
        {handshake_code, 359, 20, STATUS_INVALID_PARAMETER, 0},
        {handshake_code, 0, 20, STATUS_INVALID_PARAMETER, 0},
        {handshake_code, 360, 19, STATUS_BUFFER_TOO_SMALL, 0},
        {handshake_code, 360, 0, STATUS_BUFFER_TOO_SMALL, 0},
        {no_server_code, 360, 0, STATUS_SUCCESS, 0},
        {no_server_code, 359, 0, STATUS_INVALID_PARAMETER, 0},
        {0x8000108, 360, 20, STATUS_INVALID_DEVICE_REQUEST, 0},
    };
    run([&] {
        for (const auto& wanted : cases) {
            std::vector<std::uint8_t> input(wanted.input_bytes), output(wanted.output_bytes, 0xEE);
            const ControlResult result =
                control(wanted.code, input.data(), wanted.input_bytes, output.data(), wanted.output_bytes);
            SCOPED_TRACE(testing::Message()
                         << std::hex << wanted.code << std::dec << " with " << wanted.input_bytes << " and "
                         << wanted.output_bytes << " bytes");
            EXPECT_EQ(result.final, wanted.status);
            EXPECT_EQ(result.information, wanted.information);
            for (std::size_t i = wanted.information; i < output.size(); ++i)
                EXPECT_EQ(output[i], 0xEE) << "output written beyond the answer, at " << i;
        }
    });
    EXPECT_EQ(transport.handshakes(), 2u);
    EXPECT_EQ(transport.no_server_notices(), 1u);
}

TEST_F(ControlRequest, The_handover_shows_block_and_flag_and_keeps_the_callers_block)
{
    machine::Transport& transport = machine.add_transport(network);
    transport.block().Disk_Nums = 3;
    transport.set_flag(77);
    run([&] {
        formats::Boot_Param own{};
        own.Lun_Nums = 2;
        own.Reserved_342[17] = 0x5A;
        Handover handover{};
        control(handshake_code, &own, sizeof own, &handover, sizeof handover);
        EXPECT_EQ(std::memcmp(&transport.received_block(), &own, sizeof own), 0);
        EXPECT_EQ(static_cast<void*>(handover.block), &transport.block());
        EXPECT_EQ(handover.block[6], 3);
        EXPECT_EQ(*handover.flag, 77u);
        *handover.flag = 0;
        EXPECT_EQ(transport.flag(), 0u);

        own.Lun_Nums = 1;
        control(no_server_code, &own, sizeof own, nullptr, 0);
        EXPECT_EQ(transport.received_block().Lun_Nums, 1);

        transport.set_without_entries(true);
        transport.set_without_flag(true);
        handover = shake_hands();
        EXPECT_EQ(handover.send, nullptr);
        EXPECT_EQ(handover.flag, nullptr);
        EXPECT_EQ(static_cast<void*>(handover.block), &transport.block());
    });
}

TEST_F(ControlRequest, A_pending_request_completes_after_its_time_with_the_same_answer)
{
    machine::Transport& transport = machine.add_transport(network);
    transport.set_pending_ms(30);
    run([&] {
        std::uint8_t block[360] = {};
        Handover handover{};
        const std::int64_t start_ms = machine.now_ms();
        const ControlResult result = control(handshake_code, block, sizeof block, &handover, sizeof handover);
        EXPECT_EQ(result.returned, STATUS_PENDING);
        EXPECT_EQ(result.final, STATUS_SUCCESS);
        EXPECT_EQ(result.information, sizeof handover);
        EXPECT_EQ(machine.now_ms() - start_ms, 30);
        EXPECT_NE(handover.send, nullptr);
        EXPECT_EQ(control(0x8000108, block, sizeof block, nullptr, 0).final, STATUS_INVALID_DEVICE_REQUEST);
    });
}

}  // namespace
