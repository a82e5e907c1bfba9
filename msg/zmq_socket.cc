#include "msg/zmq_socket.h"
