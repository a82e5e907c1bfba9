#include "msg/zmq_api_internal.h"

#include "common/shared_object_internal.h"

namespace {

const ZmqApi* openZmqApi() {
  static SharedObject library("libzmq.so.5");
  static ZmqApi api;
  library.resolve(api.ctx_new, "zmq_ctx_new");
  library.resolve(api.ctx_destroy, "zmq_ctx_destroy");
  library.resolve(api.socket, "zmq_socket");
  library.resolve(api.close, "zmq_close");
  library.resolve(api.bind, "zmq_bind");
  library.resolve(api.connect, "zmq_connect");
  library.resolve(api.setsockopt, "zmq_setsockopt");
  library.resolve(api.msg_init, "zmq_msg_init");
  library.resolve(api.msg_init_size, "zmq_msg_init_size");
  library.resolve(api.msg_data, "zmq_msg_data");
  library.resolve(api.msg_size, "zmq_msg_size");
  library.resolve(api.msg_close, "zmq_msg_close");
  library.resolve(api.sendmsg, "zmq_sendmsg");
  library.resolve(api.recvmsg, "zmq_recvmsg");
  library.resolve(api.poll, "zmq_poll");
  library.resolve(api.errnum, "zmq_errno");
  library.resolve(api.strerror, "zmq_strerror");
  return library.ready() ? &api : nullptr;
}

}  // namespace

const ZmqApi* zmqApi() {
  static const ZmqApi* const api = openZmqApi();
  return api;
}
