// Keeps, per class T, a list of all live instances in construction order.
#pragma once

#include <list>

#include "Mutex.hpp"

template <class T>
class ListedObj {
public:
    // T is not constructed yet (or is gone) here: the downcast only takes
    // the address, which UBSan's vptr check would flag.
    __attribute__((no_sanitize("vptr"))) ListedObj()
    {
        MutexGuard guard(m_objListLock, "ListedObj.hpp", 19);
        m_objList.push_back(static_cast<T*>(this));
    }
    ListedObj(const ListedObj&) : ListedObj() {}
    ListedObj& operator=(const ListedObj&) { return *this; }
    __attribute__((no_sanitize("vptr"))) virtual ~ListedObj()
    {
        MutexGuard guard(m_objListLock, "ListedObj.hpp", 27);
        m_objList.remove(static_cast<T*>(this));
    }

    // Walk m_objList only while holding m_objListLock (recursive).
    static Mutex m_objListLock;
    static std::list<T*> m_objList;
};

template <class T>
Mutex ListedObj<T>::m_objListLock(true);
template <class T>
std::list<T*> ListedObj<T>::m_objList;
