#include "msg/zmq_api_internal.h"

#include "common/shared_object_internal.h"

const ZmqApi* zmqApi() {
  static ZmqApi api;
  // Loaded once, by the first caller; later callers wait for it.
  static const bool loaded = loadFunctions("libzmq.so.5", {{api.ctx_new, "zmq_ctx_new"},
                                                           {api.ctx_destroy, "zmq_ctx_destroy"},
                                                           {api.socket, "zmq_socket"},
                                                           {api.close, "zmq_close"},
                                                           {api.bind, "zmq_bind"},
                                                           {api.connect, "zmq_connect"},
                                                           {api.setsockopt, "zmq_setsockopt"},
                                                           {api.msg_init, "zmq_msg_init"},
                                                           {api.msg_init_size, "zmq_msg_init_size"},
                                                           {api.msg_data, "zmq_msg_data"},
                                                           {api.msg_size, "zmq_msg_size"},
                                                           {api.msg_close, "zmq_msg_close"},
                                                           {api.sendmsg, "zmq_sendmsg"},
                                                           {api.recvmsg, "zmq_recvmsg"},
                                                           {api.poll, "zmq_poll"},
                                                           {api.errnum, "zmq_errno"},
                                                           {api.strerror, "zmq_strerror"}});
  return loaded ? &api : nullptr;
}
