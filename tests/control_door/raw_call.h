// SPDX-License-Identifier: BSD-3-Clause
//
// Calls whose requests are any bytes.
#pragma once

#include <grpcpp/grpcpp.h>
#include <grpcpp/impl/codegen/client_unary_call.h>
#include <grpcpp/support/sync_stream.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace ofswitch {

struct RawMethod {
  const char* name;  // "/ofswitch.pb.Switch/GetStats"
  bool isStream;
};

inline constexpr RawMethod kMethods[] = {
    {"/ofswitch.pb.Switch/ChangeFlows", true},
    {"/ofswitch.pb.Switch/DumpFlows", true},
    {"/ofswitch.pb.Switch/GetTables", false},
    {"/ofswitch.pb.Switch/GetPorts", false},
    {"/ofswitch.pb.Switch/GetStats", false},
    {"/ofswitch.pb.Switch/ReadLog", true},
    {"/ofswitch.pb.Switch/SetLogLevels", false},
    {"/ofswitch.pb.Switch/Trace", false},
    {"/bess.pb.Host/ListModuleClasses", false},
    {"/bess.pb.Host/ListPlugins", false},
    {"/bess.pb.Host/ListModules", false},
    {"/bess.pb.Host/GetModule", false},
    {"/bess.pb.Host/ModuleCommand", false},
    {"/bess.pb.Host/ListPorts", false},
    {"/bess.pb.Host/ListWorkers", false},
    {"/bess.pb.Host/GetStatistics", false},
};

struct RawAnswer {
  grpc::Status status;
  size_t messages = 0;
  std::string last;  // of the messages
};

// Waits for the end of the answer, or until it has taken `patience`.
inline RawAnswer rawCall(const std::shared_ptr<grpc::Channel>& channel,
                         const RawMethod& method, const std::string& bytes,
                         std::chrono::milliseconds patience) {
  using Type = grpc::internal::RpcMethod::RpcType;
  const grpc::internal::RpcMethod rpc(
      method.name, method.isStream ? Type::SERVER_STREAMING : Type::NORMAL_RPC,
      channel);
  const grpc::Slice slice(bytes);
  const grpc::ByteBuffer request(&slice, 1);
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + patience);
  RawAnswer answer;
  grpc::ByteBuffer reply;
  const auto keep = [&] {
    grpc::Slice all;
    if (reply.DumpToSingleSlice(&all).ok()) {
      answer.last.assign(all.begin(), all.end());
    }
    answer.messages++;
  };
  if (!method.isStream) {
    answer.status =
        grpc::internal::BlockingUnaryCall<grpc::ByteBuffer, grpc::ByteBuffer>(
            channel.get(), rpc, &context, request, &reply);
    if (answer.status.ok()) keep();
    return answer;
  }
  const std::unique_ptr<grpc::ClientReader<grpc::ByteBuffer>> reader(
      grpc::internal::ClientReaderFactory<grpc::ByteBuffer>::Create(
          channel.get(), rpc, &context, request));
  while (reader->Read(&reply)) keep();
  answer.status = reader->Finish();
  return answer;
}

}  // namespace ofswitch
