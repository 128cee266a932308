#include "runtime/SendReply.h"

#include "platform/linux/RuntimeBusNames.h"
#include "platform/linux/SealedMemfd.h"
#include "runtime/ReplyForm.h"

#include <fcntl.h>
#include <memory>
#include <string>

namespace tavix::runtime {
namespace {

namespace bus = runtimebus;

struct MessageUnref {
  void operator()(sd_bus_message *message) const { sd_bus_message_unref(message); }
};

// Opens "{sv}" with `key` and a variant of `contents`; `closeEntry` closes both.
int openEntry(sd_bus_message *message, const char *key, const char *contents) {
  int r = sd_bus_message_open_container(message, SD_BUS_TYPE_DICT_ENTRY, "sv");
  if (r >= 0)
    r = sd_bus_message_append_basic(message, SD_BUS_TYPE_STRING, key);
  if (r >= 0)
    r = sd_bus_message_open_container(message, SD_BUS_TYPE_VARIANT, contents);
  return r;
}

int closeEntry(sd_bus_message *message) {
  const int r = sd_bus_message_close_container(message);
  return r < 0 ? r : sd_bus_message_close_container(message);
}

int appendEntries(sd_bus_message *message, const SendReply &reply) {
  int r = 0;
  if (reply.error) {
    const int32_t number = reply.error->errn;
    if (r >= 0 && (r = openEntry(message, bus::errorNumberKey, "i")) >= 0 &&
        (r = sd_bus_message_append_basic(message, SD_BUS_TYPE_INT32, &number)) >= 0)
      r = closeEntry(message);
    if (r >= 0 && (r = openEntry(message, bus::errorTextKey, "s")) >= 0 &&
        (r = sd_bus_message_append_basic(message, SD_BUS_TYPE_STRING, reply.error->errs.c_str())) >= 0)
      r = closeEntry(message);
  }
  if (reply.directObject && r >= 0 && (r = openEntry(message, bus::directObjectKey, "ay")) >= 0 &&
      (r = sd_bus_message_append_array(message, SD_BUS_TYPE_BYTE, reply.directObject->data(),
                                       reply.directObject->size())) >= 0)
    r = closeEntry(message);
  if (reply.responseFile && r >= 0 && (r = openEntry(message, bus::responseFileKey, "h")) >= 0) {
    // A reply may be sent again and again (see ReplyCache). A duplicate would share the
    // file offset, so a receiver that reads rather than preads would leave the next one
    // at the end; each message gets its own read-only opening of the memfd instead, and
    // the memfd itself only when it cannot be opened anew.
    const UniqueFd opened(::open(("/proc/self/fd/" + std::to_string(reply.responseFile.get())).c_str(),
                                 O_RDONLY | O_CLOEXEC));
    const int fd = opened ? opened.get() : reply.responseFile.get(); // the message keeps its own duplicate
    if ((r = sd_bus_message_append_basic(message, SD_BUS_TYPE_UNIX_FD, &fd)) >= 0)
      r = closeEntry(message);
  }
  return r;
}

} // namespace

SendReply SendReply::failure(RuntimeError error) {
  SendReply reply;
  reply.error = std::move(error);
  return reply;
}

SendReply SendReply::response(std::string json, bool canPassDescriptors) {
  SendReply reply;
  switch (replyFormFor(json.size(), canPassDescriptors)) {
  case ReplyForm::tooLarge:
    return failure({errn::badData, "The reply of " + std::to_string(json.size()) + " bytes is over the limit of " +
                                       std::to_string(replyLimit) + " bytes"});
  case ReplyForm::sealedMemfd:
    reply.responseFile = UniqueFd(makeSealedMemfd("tavix-reply", json));
    if (reply.responseFile)
      return reply;
    break; // without a memfd the bytes still fit a message
  case ReplyForm::inlineBytes:
    break;
  }
  reply.directObject = std::move(json);
  return reply;
}

int SendReply::send(sd_bus_message *call) const {
  sd_bus_message *raw = nullptr;
  int r = sd_bus_message_new_method_return(call, &raw);
  if (r < 0)
    return r;
  std::unique_ptr<sd_bus_message, MessageUnref> message(raw);
  if ((r = sd_bus_message_open_container(raw, SD_BUS_TYPE_ARRAY, "{sv}")) < 0 || (r = appendEntries(raw, *this)) < 0 ||
      (r = sd_bus_message_close_container(raw)) < 0)
    return r;
  return sd_bus_send(nullptr, raw, nullptr);
}

} // namespace tavix::runtime
