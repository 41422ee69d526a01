#include "session_lock.h"

ACE_mutexattr_t *errorCheckingAttributes()
{
    static ACE_mutexattr_t stAttributes = [] {
        ACE_mutexattr_t stNew;
        pthread_mutexattr_init(&stNew);
        pthread_mutexattr_settype(&stNew, PTHREAD_MUTEX_ERRORCHECK);
        return stNew;
    }();
    return &stAttributes;
}
