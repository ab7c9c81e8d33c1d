#ifndef SUPPORT_FAULT_H
#define SUPPORT_FAULT_H

// Makes a system call fail, once or a few times in a row, while the object lives:
//   Fault no_socket(Call::kSocket, EMFILE);               the next call fails
//   Fault second_ioctl(Call::kIoctl, EPERM, 2);           the one after it fails
// A select that fails with the error 0 reports a ready descriptor and none in its sets.
// A sendto that fails with the error 0 sends nothing and returns 0.
// Every other call, on any thread, goes to the system; so do all calls without a Fault. Only calls that the
// test program itself makes are concerned, also those of the test.
enum class Call {
  kSocket,
  kBind,
  kListen,
  kConnect,
  kAccept,
  kSetsockopt,
  kIoctl,
  kSelect,
  kSendto,
  kRecvfrom,
  kSend,
  kRecv,
  kThread,    // pthread_create; it returns the error number, -1 included
  kProtocol,  // getprotobyname
  kCount
};

class Fault {
 public:
  // From the nth call from now on, `times` calls fail with this error.
  Fault(Call call, int error, int nth = 1, int times = 1);
  ~Fault();
  Fault(const Fault&) = delete;
  Fault& operator=(const Fault&) = delete;

  // How many calls have been made to fail.
  int struck() const;

 private:
  Call call_;
};

// The protocol of the raw socket that was asked for last; -1: none was.
int last_raw_protocol();

#endif
