// SPDX-License-Identifier: BSD-3-Clause
#include "switch/client/door_options.h"

#include <cstdlib>

#include "switch/live/config.h"

namespace ofswitch {
namespace {

constexpr char kGroup[] = "Where the switch is";

}  // namespace

std::string DoorOptions::socketPath() const {
  if (!socket.empty()) return socket;
  const char* path = std::getenv("OFSWITCH_SOCKET");
  if (path != nullptr && *path != '\0') return path;
  return SwitchConfig().controlSocket;
}

void addDoorOptions(CLI::App* command, DoorOptions* options) {
  CLI::Option* socket =
      command
          ->add_option("--socket", options->socket,
                       "Control socket of the switch (default: the variable "
                       "OFSWITCH_SOCKET, or " +
                           SwitchConfig().controlSocket + ")")
          ->type_name("PATH")
          ->group(kGroup);
  CLI::Option* address =
      command
          ->add_option("--address", options->address,
                       "Address at which the switch was told to listen")
          ->type_name("HOST:PORT")
          ->excludes(socket)
          ->group(kGroup);
  CLI::Option* ca = command
                        ->add_option("--tls-ca", options->tlsCa,
                                     "Authority that signed the switch's "
                                     "certificate; with --address")
                        ->type_name("FILE.pem")
                        ->needs(address)
                        ->group(kGroup);
  CLI::Option* certificate =
      command
          ->add_option("--tls-cert", options->tlsCertificate,
                       "Certificate to show to the switch")
          ->type_name("FILE.pem")
          ->needs(ca)
          ->group(kGroup);
  CLI::Option* key =
      command->add_option("--tls-key", options->tlsKey, "Its private key")
          ->type_name("FILE.pem")
          ->needs(certificate)
          ->group(kGroup);
  command
      ->add_option("--wait", options->wait,
                   "How long a switch that is still loading its flows may take "
                   "to answer")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.1, 86400.0))
      ->capture_default_str()
      ->group(kGroup);
  ca->needs(key);
  certificate->needs(key);
}

}  // namespace ofswitch
