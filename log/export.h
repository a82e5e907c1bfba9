// What the common library exports. Everything is built with hidden visibility,
// so a name reaches other programs (and our label manager library) only when
// its declaration carries ZORV_EXPORT: internal helpers stay out of the
// dynamic symbol table and cannot be interposed or relied upon.
#ifndef ZORV_LOG_EXPORT_H_
#define ZORV_LOG_EXPORT_H_

#define ZORV_EXPORT __attribute__((visibility("default")))

#endif  // ZORV_LOG_EXPORT_H_
