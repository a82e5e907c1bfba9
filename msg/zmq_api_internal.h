// The libzmq functions the messaging code uses, opened on first use: a run
// that sends no message never maps libzmq and the dozen libraries it needs.
#ifndef ZORV_MSG_ZMQ_API_INTERNAL_H_
#define ZORV_MSG_ZMQ_API_INTERNAL_H_

#include <zmq.h>

struct ZmqApi {
  // Exactly the types libzmq's header declares.
  decltype(&::zmq_ctx_new) ctx_new;
  decltype(&::zmq_ctx_destroy) ctx_destroy;
  decltype(&::zmq_socket) socket;
  decltype(&::zmq_close) close;
  decltype(&::zmq_bind) bind;
  decltype(&::zmq_connect) connect;
  decltype(&::zmq_setsockopt) setsockopt;
  decltype(&::zmq_msg_init) msg_init;
  decltype(&::zmq_msg_init_size) msg_init_size;
  decltype(&::zmq_msg_data) msg_data;
  decltype(&::zmq_msg_size) msg_size;
  decltype(&::zmq_msg_close) msg_close;
  decltype(&::zmq_sendmsg) sendmsg;
  decltype(&::zmq_recvmsg) recvmsg;
  decltype(&::zmq_poll) poll;
  decltype(&::zmq_errno) errnum;
  decltype(&::zmq_strerror) strerror;
};

/// libzmq.so.5's functions, opened by the first call (thread-safe); nullptr,
/// with an error logged, when the library cannot be used.
const ZmqApi* zmqApi();

#endif  // ZORV_MSG_ZMQ_API_INTERNAL_H_
