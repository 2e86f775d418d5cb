/* consumer.c - a queue between user threads, in a project of its own.
 *
 * Eight producers put a hundred numbers each into a queue of sixteen places; one consumer takes them out. All of them
 * are user threads: the semaphores park the one that has to wait, the critical section keeps the queue whole. Prints the
 * sum and ends with 0 when it is right.
 *
 * With CMake see CMakeLists.txt; without it:
 *
 *     cc consumer.c -o consumer $(pkg-config --cflags --libs zvxkvt)
 */
#include <stdio.h>
#include <zvxkvt/osapi.h>
#include <zvxkvt/zvxkvt.h>

enum { kProducers = 8, kEach = 100, kPlaces = 16 };

static struct {
    CRITICAL_SECTION Lock; /* guards the rest */
    int Numbers[kPlaces];
    unsigned Head, Tail;
} queue;

static HANDLE places, numbers; /* semaphores: free places, and numbers that are in the queue */

static DWORD WINAPI Produce(LPVOID first) {
    for (int i = 0; i < kEach; i++) {
        WaitForSingleObject(places, INFINITE);
        EnterCriticalSection(&queue.Lock);
        queue.Numbers[queue.Tail++ % kPlaces] = (int)(ULONG_PTR)first + i;
        LeaveCriticalSection(&queue.Lock);
        ReleaseSemaphore(numbers, 1, NULL);
        if (i % 10 == 0) Sleep(1);
    }
    return 0;
}

static DWORD WINAPI Consume(LPVOID sum) {
    for (int i = 0; i < kProducers * kEach; i++) {
        WaitForSingleObject(numbers, INFINITE);
        EnterCriticalSection(&queue.Lock);
        *(long *)sum += queue.Numbers[queue.Head++ % kPlaces];
        LeaveCriticalSection(&queue.Lock);
        ReleaseSemaphore(places, 1, NULL);
    }
    return 0;
}

static DWORD WINAPI Host(LPVOID unused) {
    long sum = 0, expected = (long)kProducers * kEach * (kProducers * kEach - 1) / 2;
    (void)unused;
    InitializeCriticalSection(&queue.Lock);
    places = CreateSemaphoreA(NULL, kPlaces, kPlaces, NULL);
    numbers = CreateSemaphoreA(NULL, 0, kPlaces, NULL);
    HANDLE consumer = CreateThread(NULL, 0, Consume, &sum, 0, NULL);
    for (int i = 0; i < kProducers; i++)
        CloseHandle(CreateThread(NULL, 0, Produce, (LPVOID)(ULONG_PTR)(i * kEach), 0, NULL));
    WaitForSingleObject(consumer, INFINITE);
    printf("sum of %d numbers: %ld\n", kProducers * kEach, sum);
    ExitProcess(sum == expected ? 0 : 1);
    return 0;
}

int main(void) {
    InitUserThreadScheduler(Host, NULL, NULL); /* does not return in fiber mode */
    return 1;
}
