/* The least that events and traced calls can cost from Python: what the measurements of the package
 * are measured beside. Each keeps sixteen bytes or so for an edge in a buffer, and nothing more. */
#define PY_SSIZE_T_CLEAN
#include <Python.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <structmember.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#if defined(__x86_64__)
#include <x86intrin.h>
#define TICK() __rdtsc()
#else
static uint64_t TICK(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (uint64_t)time.tv_sec * 1000000000 + (uint64_t)time.tv_nsec;
}
#endif

/* ---- The buffer: begins again where it is full. */

typedef struct {
    uint64_t tick;
    uint64_t what;
} Edge;

enum { usedEdges = 1 << 16, growingEdges = 1 << 21 };

static Edge used[usedEdges];
static Edge* next = used;
static Edge* first = used;
static Edge* end = used + usedEdges;

static inline void put(uint64_t tick, uint64_t what) {
    if (next == end)
        next = first;
    next->tick = tick;
    next->what = what;
    ++next;
}

/* ---- Events: `with Event("name", number=1)`. */

typedef struct {
    PyObject_HEAD vectorcallfunc call;
    PyObject* name;
    uint64_t values[2];
} Event;

static PyTypeObject* eventType;
static Event* freeEvent;
static Event* idle;

static PyObject* callEvent(PyObject* self, PyObject* const* args, size_t count, PyObject* names) {
    (void)args, (void)names;
    const Event* event = (const Event*)self;
    put(TICK(), (uintptr_t)event->name + (uint64_t)PyVectorcall_NARGS(count));
    if (event->values[0] | event->values[1])
        put(event->values[0], event->values[1]);
    Py_RETURN_NONE;
}

static PyObject* callIdle(PyObject* self, PyObject* const* args, size_t count, PyObject* names) {
    (void)self, (void)args, (void)count, (void)names;
    Py_RETURN_NONE;
}

static Event* allocate(void) {
    if (!freeEvent)
        return PyObject_New(Event, eventType);
    Event* event = freeEvent;
    freeEvent = NULL;
    return (Event*)PyObject_Init((PyObject*)event, eventType);
}

static uint64_t bits(PyObject* number) {
    if (!PyFloat_CheckExact(number))
        return (uint64_t)PyLong_AsLong(number);
    const double value = PyFloat_AS_DOUBLE(number);
    uint64_t result;
    memcpy(&result, &value, sizeof result);
    return result;
}

static PyObject* makeEvent(PyObject* module, PyObject* const* args, Py_ssize_t count,
                           PyObject* names) {
    (void)module, (void)count;
    Event* event = allocate();
    if (!event)
        return NULL;
    event->call = callEvent;
    event->name = Py_NewRef(args[0]);
    const Py_ssize_t size = names ? PyTuple_GET_SIZE(names) : 0;
    for (Py_ssize_t i = 0; i < 2; ++i)
        event->values[i] = i < size ? bits(args[1 + i]) : 0;
    return (PyObject*)event;
}

static PyObject* makeIdle(PyObject* module, PyObject* name) {
    (void)module, (void)name;
    return Py_NewRef((PyObject*)idle);
}

static void freeEventObject(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    Py_DECREF(((Event*)self)->name);
    if (freeEvent)
        PyObject_Free(self);
    else
        freeEvent = (Event*)self;
    Py_DECREF(type);
}

/* What __enter__ and __exit__ are: looking one up gives the event itself, which is called, so that
 * no bound method is made. */
static PyObject* getItself(PyObject* self, PyObject* object, PyObject* type) {
    (void)self, (void)type;
    return Py_NewRef(object);
}

static PyType_Slot itselfSlots[] = {{Py_tp_descr_get, getItself}, {0, NULL}};
static PyType_Spec itselfSpec = {"bench_floors.Itself", sizeof(PyObject), 0, Py_TPFLAGS_DEFAULT,
                                 itselfSlots};

static PyMemberDef eventMembers[] = {
    {"__vectorcalloffset__", T_PYSSIZET, offsetof(Event, call), READONLY, NULL},
    {NULL, 0, 0, 0, NULL},
};
static PyType_Slot eventSlots[] = {
    {Py_tp_dealloc, freeEventObject},
    {Py_tp_call, PyVectorcall_Call},
    {Py_tp_members, eventMembers},
    {0, NULL},
};
static PyType_Spec eventSpec = {"bench_floors.Event", sizeof(Event), 0,
                                Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_VECTORCALL, eventSlots};

static int makeTypes(void) {
    PyObject* itself = PyType_FromSpec(&itselfSpec);
    PyObject* type = PyType_FromSpec(&eventSpec);
    if (!itself || !type)
        return -1;
    eventType = (PyTypeObject*)type;
    PyObject* descriptor = PyObject_CallNoArgs(itself);
    if (!descriptor || PyObject_SetAttrString(type, "__enter__", descriptor) < 0 ||
        PyObject_SetAttrString(type, "__exit__", descriptor) < 0)
        return -1;
    idle = PyObject_New(Event, eventType);
    if (!idle)
        return -1;
    idle->call = callIdle;
    idle->name = Py_NewRef(Py_None);
    return 0;
}

/* ---- Functions. */

static PyObject* instant(PyObject* module, PyObject* name) {
    (void)module;
    put(TICK(), (uintptr_t)name);
    Py_RETURN_NONE;
}

static PyObject* counter(PyObject* module, PyObject* const* args, Py_ssize_t count) {
    (void)module, (void)count;
    put(TICK(), (uintptr_t)args[0]);
    put(bits(args[1]), 0);
    Py_RETURN_NONE;
}

static PyObject* readClock(PyObject* module, PyObject* none) {
    (void)module, (void)none;
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return PyLong_FromUnsignedLongLong((uint64_t)time.tv_sec * 1000000000 + (uint64_t)time.tv_nsec);
}

static const char* const known[] = {"alpha", "beta", "gamma", "delta", "epsilon"};

static PyObject* has(PyObject* module, PyObject* text) {
    (void)module;
    Py_ssize_t size = 0;
    const char* utf8 = PyUnicode_AsUTF8AndSize(text, &size);
    if (!utf8)
        return NULL;
    uint64_t hash = 14695981039346656037u;
    for (Py_ssize_t i = 0; i < size; ++i)
        hash = (hash ^ (unsigned char)utf8[i]) * 1099511628211u;
    return PyBool_FromLong(strcmp(known[hash % 5], utf8) == 0);
}

typedef struct {
    PyObject_HEAD vectorcallfunc call;
    PyObject* function;
} Wrapper;

static PyTypeObject* wrapperType;

static PyObject* callWrapped(PyObject* self, PyObject* const* args, size_t count, PyObject* names) {
    put(TICK(), (uintptr_t)self);
    PyObject* result = PyObject_Vectorcall(((Wrapper*)self)->function, args, count, names);
    put(TICK(), (uintptr_t)self);
    return result;
}

static void freeWrapper(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    Py_DECREF(((Wrapper*)self)->function);
    PyObject_Free(self);
    Py_DECREF(type);
}

static PyMemberDef wrapperMembers[] = {
    {"__vectorcalloffset__", T_PYSSIZET, offsetof(Wrapper, call), READONLY, NULL},
    {NULL, 0, 0, 0, NULL},
};
static PyType_Slot wrapperSlots[] = {
    {Py_tp_dealloc, freeWrapper},
    {Py_tp_call, PyVectorcall_Call},
    {Py_tp_members, wrapperMembers},
    {0, NULL},
};
static PyType_Spec wrapperSpec = {"bench_floors.Wrapper", sizeof(Wrapper), 0,
                                  Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_VECTORCALL, wrapperSlots};

static PyObject* wrap(PyObject* module, PyObject* function) {
    (void)module;
    Wrapper* wrapper = PyObject_New(Wrapper, wrapperType);
    if (!wrapper)
        return NULL;
    wrapper->call = callWrapped;
    wrapper->function = Py_NewRef(function);
    return (PyObject*)wrapper;
}

/* ---- Hooks. */

static PyObject* evaluate(PyThreadState* thread, struct _PyInterpreterFrame* frame, int throws) {
    const uint64_t begin = TICK();
    const uint64_t what = (uintptr_t)frame;
    PyObject* result = _PyEval_EvalFrameDefault(thread, frame, throws);
    put(begin, (TICK() - begin) << 32 | (what & 0xffffffff));
    return result;
}

static PyObject* evaluateOnly(PyThreadState* thread, struct _PyInterpreterFrame* frame,
                              int throws) {
    return _PyEval_EvalFrameDefault(thread, frame, throws);
}

static void useFrameHook(_PyFrameEvalFunction hook) {
    _PyInterpreterState_SetEvalFrameFunc(PyInterpreterState_Get(), hook);
}

static PyObject* frameHook(PyObject* module, PyObject* isOn) {
    (void)module;
    useFrameHook(isOn == Py_True ? evaluate : _PyEval_EvalFrameDefault);
    Py_RETURN_NONE;
}

static PyObject* emptyFrameHook(PyObject* module, PyObject* isOn) {
    (void)module;
    useFrameHook(isOn == Py_True ? evaluateOnly : _PyEval_EvalFrameDefault);
    Py_RETURN_NONE;
}

/* With fresh pages for the edges. */
static PyObject* growingFrameHook(PyObject* module, PyObject* isOn) {
    (void)module;
    const size_t bytes = sizeof(Edge) * growingEdges;
    if (isOn != Py_True) {
        useFrameHook(_PyEval_EvalFrameDefault);
        if (first != used)
            munmap(first, bytes);
        first = next = used;
        end = used + usedEdges;
        Py_RETURN_NONE;
    }
    void* pages = mmap(NULL, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED)
        return PyErr_NoMemory();
    madvise(pages, bytes, MADV_HUGEPAGE);
    first = next = pages;
    end = first + growingEdges;
    useFrameHook(evaluate);
    Py_RETURN_NONE;
}

static int ignore(PyObject* self, PyFrameObject* frame, int what, PyObject* argument) {
    (void)self, (void)frame, (void)what, (void)argument;
    return 0;
}

static PyObject* emptyProfileHook(PyObject* module, PyObject* isOn) {
    PyEval_SetProfile(isOn == Py_True ? ignore : NULL, module);
    Py_RETURN_NONE;
}

/* ---- A writer of trace-event JSON by hand: so many events of two names, to a file. */

static char* putText(char* at, const char* text, size_t size) {
    memcpy(at, text, size);
    return at + size;
}

static char* putTime(char* at, uint64_t nanoseconds) {
    char digits[24];
    char* begin = digits + sizeof digits;
    for (int i = 0; i < 3; ++i, nanoseconds /= 10)
        *--begin = (char)('0' + nanoseconds % 10);
    *--begin = '.';
    do {
        *--begin = (char)('0' + nanoseconds % 10);
        nanoseconds /= 10;
    } while (nanoseconds);
    return putText(at, begin, (size_t)(digits + sizeof digits - begin));
}

static char* putEvent(char* at, uint64_t number) {
    static const char* const names[] = {
        "{\"name\":\"inner\",\"cat\":\"event\",\"ph\":\"X\",\"ts\":",
        "{\"name\":\"outer\",\"cat\":\"event\",\"ph\":\"X\",\"ts\":"};
    const char* name = names[number & 1];
    at = putTime(putText(at, name, strlen(name)), number * 137);
    at = putTime(putText(at, ",\"dur\":", 7), number % 1000);
    return putText(at, ",\"pid\":1,\"tid\":1},\n", 19);
}

static PyObject* writeJson(PyObject* module, PyObject* args) {
    (void)module;
    const char* path;
    unsigned long long count;
    if (!PyArg_ParseTuple(args, "sK", &path, &count))
        return NULL;
    static char buffer[256 << 10];
    const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ssize_t status = file;
    char* at = buffer;
    for (uint64_t i = 0; i < count && status >= 0; ++i) {
        at = putEvent(at, i);
        if (at > buffer + sizeof buffer - 256) {
            status = write(file, buffer, (size_t)(at - buffer));
            at = buffer;
        }
    }
    if (status >= 0)
        status = write(file, buffer, (size_t)(at - buffer));
    if (file >= 0)
        close(file);
    if (status < 0)
        return PyErr_SetFromErrnoWithFilename(PyExc_OSError, path);
    Py_RETURN_NONE;
}

static PyMethodDef methods[] = {
    {"event", (PyCFunction)(void (*)(void))makeEvent, METH_FASTCALL | METH_KEYWORDS, NULL},
    {"idle_event", makeIdle, METH_O, NULL},
    {"instant", instant, METH_O, NULL},
    {"counter", (PyCFunction)(void (*)(void))counter, METH_FASTCALL, NULL},
    {"clock", readClock, METH_NOARGS, NULL},
    {"has", has, METH_O, NULL},
    {"wrap", wrap, METH_O, NULL},
    {"frame_hook", frameHook, METH_O, NULL},
    {"empty_frame_hook", emptyFrameHook, METH_O, NULL},
    {"growing_frame_hook", growingFrameHook, METH_O, NULL},
    {"profile_hook", emptyProfileHook, METH_O, NULL},
    {"write_json", writeJson, METH_VARARGS, NULL},
    {NULL, NULL, 0, NULL},
};

static struct PyModuleDef definition = {
    PyModuleDef_HEAD_INIT, "bench_floors", NULL, -1, methods, NULL, NULL, NULL, NULL};

PyMODINIT_FUNC PyInit_bench_floors(void) {
    wrapperType = (PyTypeObject*)PyType_FromSpec(&wrapperSpec);
    if (!wrapperType || makeTypes() < 0)
        return NULL;
    return PyModule_Create(&definition);
}
