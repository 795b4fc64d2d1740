#include "tools/device/probe.h"

#include "tools/base/errors.h"
#include "tools/device/protocol_client.h"

namespace kvtool {

namespace {

// Why a failed connection says nothing about the device; empty: it does say something. A refusal
// counts only while the path to the device exists: without it another host may have refused.
std::string Blindness(const Connection& connection, const Endpoint& endpoint,
                      const Endpoint& local) {
    if (connection.state == ConnectState::kOwnTrouble) {
        return "it cannot reach the device: " + connection.error;
    }
    return OwnTrouble(endpoint, local);
}

}  // namespace

ProbeResult Probe(const Endpoint& endpoint, const Endpoint& local, Millis connect, Millis reply) {
    Connection connection = Connect(endpoint, Clock::now() + connect);
    if (connection.state != ConnectState::kConnected) {
        const std::string blind = Blindness(connection, endpoint, local);
        if (!blind.empty()) {
            return {ProbeState::kBlind, 0,
                    "this PC cannot look: " + blind + "; that says nothing about the device"};
        }
        if (connection.state == ConnectState::kRefused) {
            return {ProbeState::kRefused, 0, endpoint.text + " refuses connections"};
        }
        return {ProbeState::kUnreachable, 0,
                endpoint.text + " cannot be reached: " + connection.error};
    }
    try {
        const uint32_t session = ProtocolClient(std::move(connection.fd), reply).Login();
        return {ProbeState::kRecovery, session, endpoint.text + " answers in recovery mode"};
    } catch (const ToolError& error) {
        if (error.Code() == ExitCode::kNoReply) {
            return {ProbeState::kSilent, 0,
                    endpoint.text + " accepts connections but does not answer"};
        }
        if (error.Code() == ExitCode::kBadReply || error.Code() == ExitCode::kLost) {
            return {
                ProbeState::kOther, 0,
                endpoint.text + " accepts connections but does not answer as recovery mode does"};
        }
        throw;
    }
}

PortState LookAtPort(const Endpoint& endpoint, uint16_t port, const Endpoint& local,
                     Millis timeout) {
    const Endpoint target = WithPort(endpoint, port);
    const Connection connection = Connect(target, Clock::now() + timeout);
    if (connection.state == ConnectState::kConnected) {
        return PortState::kOpen;
    }
    return Blindness(connection, target, local).empty() ? PortState::kClosed : PortState::kBlind;
}

}  // namespace kvtool
