// SPDX-License-Identifier: BSD-3-Clause
#include <rte_mempool.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "module.h"
#include "utils/ether.h"

std::vector<Emitted> emitted;
std::vector<bess::Packet*> dropped;

Module::Module() = default;
Module::~Module() = default;
bess::pb::CommandResponse Module::Init(const bess::pb::EmptyArg&) { return {}; }
void Module::DeInit() {}
task_result Module::RunTask(Context*, bess::PacketBatch*, void*) { return {}; }
void Module::ProcessBatch(Context*, bess::PacketBatch*) {}
int Module::OnEvent(bess::Event) { return -ENOTSUP; }
std::string Module::GetDesc() const { return ""; }
void Module::AddActiveWorker(int, const Task*) {}
CheckConstraintResult Module::CheckModuleConstraints() const {
  return CHECK_OK;
}

void Module::EmitPacket(Context*, bess::Packet* packet,
                        bess::gate_idx_t ogate) {
  emitted.push_back({packet, ogate});
}

void Module::DropPacket(Context*, bess::Packet* packet) {
  dropped.push_back(packet);
}

std::vector<ModuleClass>& ModuleBuilder::classes() {
  static std::vector<ModuleClass> classes;
  return classes;
}

bool ModuleBuilder::RegisterModuleClass(
    std::function<Module*()> generator, const std::string& class_name,
    const std::string& name_template, const std::string& help_text,
    bess::gate_idx_t igates, bess::gate_idx_t ogates, const Commands& cmds,
    module_init_func_t init) {
  classes().push_back({generator, class_name, name_template, help_text, igates,
                       ogates, cmds, init});
  return true;
}

bool ModuleBuilder::DeregisterModuleClass(const std::string& class_name) {
  return std::erase_if(classes(), [&](const ModuleClass& known) {
           return known.class_name == class_name;
         }) != 0;
}

bess::pb::CommandResponse CommandSuccess() { return {}; }

bess::pb::CommandResponse CommandSuccess(
    const google::protobuf::Message& data) {
  bess::pb::CommandResponse response;
  response.mutable_data()->PackFrom(data);
  return response;
}

bess::pb::CommandResponse CommandFailure(int code) {
  return CommandFailure(code, "%s", strerror(abs(code)));
}

bess::pb::CommandResponse CommandFailure(int code, const char* fmt, ...) {
  char text[256];
  va_list args;
  va_start(args, fmt);
  vsnprintf(text, sizeof(text), fmt, args);
  va_end(args);
  bess::pb::CommandResponse response;
  response.mutable_error()->set_code(code);
  response.mutable_error()->set_errmsg(text);
  return response;
}

bess::PacketBatch* Task::AllocPacketBatch() {
  bess::PacketBatch* batch = &batches_[taken++];
  batch->clear();
  return batch;
}

std::string bess::utils::Ethernet::Address::ToString() const { return "mac"; }

namespace bess {

uint16_t copy_headroom = 128;
uint8_t copy_metadata[128];

namespace {

rte_mempool* pool() {
  static rte_mempool* pool =
      rte_pktmbuf_pool_create("packets", 511, 0, 256, 128 + 2048, -1);
  return pool;
}

}  // namespace

Packet* make(const std::vector<uint8_t>& bytes) {
  auto* packet = reinterpret_cast<Packet*>(rte_pktmbuf_alloc(pool()));
  if (packet == nullptr) return nullptr;
  memset(packet->immutable_, 0, sizeof(packet->immutable_));
  memset(packet->metadata_, 0, sizeof(packet->metadata_));
  memcpy(
      rte_pktmbuf_append(&packet->mbuf_, static_cast<uint16_t>(bytes.size())),
      bytes.data(), bytes.size());
  return packet;
}

int Packet::head_len() const { return mbuf_.data_len; }
int Packet::total_len() const { return static_cast<int>(mbuf_.pkt_len); }
uint16_t Packet::headroom() const { return rte_pktmbuf_headroom(&mbuf_); }
uint16_t Packet::tailroom() const { return rte_pktmbuf_tailroom(&mbuf_); }
uint16_t Packet::data_len() const { return mbuf_.data_len; }
void Packet::set_data_len(uint16_t len) { mbuf_.data_len = len; }
void Packet::set_total_len(uint32_t len) { mbuf_.pkt_len = len; }
void* Packet::prepend(uint16_t len) { return rte_pktmbuf_prepend(&mbuf_, len); }
void* Packet::adj(uint16_t len) { return rte_pktmbuf_adj(&mbuf_, len); }
void* Packet::append(uint16_t len) { return rte_pktmbuf_append(&mbuf_, len); }
int Packet::nb_segs() const { return mbuf_.nb_segs; }
Packet* Packet::next() const { return reinterpret_cast<Packet*>(mbuf_.next); }
bool Packet::is_linear() const { return rte_pktmbuf_is_contiguous(&mbuf_); }

Packet* Packet::copy(const Packet* src) {
  const auto* bytes = src->head_data<const uint8_t*>();
  Packet* packet = make({bytes, bytes + src->head_len()});
  if (packet == nullptr) return nullptr;
  auto* start = packet->head_data<char*>();
  packet->mbuf_.data_off = copy_headroom;
  memmove(packet->head_data<char*>(), start, packet->data_len());
  memcpy(packet->metadata_, copy_metadata, sizeof(packet->metadata_));
  return packet;
}

void Packet::Free(Packet* packet) { rte_pktmbuf_free(&packet->mbuf_); }

void Packet::Free(Packet** packets, size_t cnt) {
  for (size_t i = 0; i < cnt; i++) Free(packets[i]);
}

void Packet::Free(PacketBatch* batch) {
  Free(batch->pkts(), static_cast<size_t>(batch->cnt()));
}

}  // namespace bess
