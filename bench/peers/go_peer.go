// bench/peers/go_peer.go - the same cases on goroutines, on one processor. Cases: yield, create, park, post_wait, lock,
// message (a round trip between two kernel threads), serve (a key-value server on -port, a goroutine a connection),
// and beside -threads parked goroutines yield_parked, timed_parked, event_parked.
package main

import (
	"bufio"
	"flag"
	"fmt"
	"io"
	"math"
	"net"
	"os"
	"runtime"
	"sort"
	"strconv"
	"strings"
	"sync"
	"syscall"
	"time"
)

var (
	caseName       = flag.String("case", "", "yield, create, park, post_wait, lock, message or serve")
	threads        = flag.Int("threads", 2, "goroutines")
	repetitions    = flag.Int("repetitions", 7, "")
	repetitionMs   = flag.Float64("repetition-ms", 100, "")
	port           = flag.Int("port", 0, "of the server")
	implementation = flag.String("impl", "go", "")
)

func median(samples []float64) float64 {
	sorted := append([]float64(nil), samples...)
	sort.Float64s(sorted)
	n := len(sorted)
	if n%2 == 1 {
		return sorted[n/2]
	}
	return (sorted[n/2-1] + sorted[n/2]) / 2
}

func report(name string, iterations int64, samples []float64, unit, extra string) {
	low, high := math.Inf(1), math.Inf(-1)
	middle := median(samples)
	var away []float64
	for _, s := range samples {
		low, high = math.Min(low, s), math.Max(high, s)
		away = append(away, math.Abs(s-middle))
	}
	fmt.Printf("{\"name\":%q,\"impl\":%q,\"backend\":\"\",\"schedulers\":1,\"iterations\":%d,\"repetitions\":%d,"+
		"\"unit\":%q,\"better\":\"lower\",\"median\":%.4g,\"deviation\":%.3g,\"min\":%.4g,\"max\":%.4g%s}\n",
		name, *implementation, iterations, len(samples), unit, middle, median(away), low, high, extra)
}

// The same search for the number of iterations as the other programs have.
func measure(name string, first int64, body func(n int64) float64) {
	wanted := *repetitionMs * 1e6
	n := first
	for {
		took := body(n)
		if took >= wanted {
			break
		}
		grow := math.Min(16, math.Max(1.3, wanted*1.2/math.Max(took, 1)))
		n = int64(float64(n)*grow) + 1
	}
	var samples, cpu []float64
	for i := 0; i < *repetitions; i++ {
		before := processorNs()
		took := body(n)
		cpu = append(cpu, (processorNs()-before)/float64(n))
		samples = append(samples, took/float64(n))
	}
	report(name, n, samples, "ns", fmt.Sprintf(",\"cpu_ns\":%.4g", median(cpu)))
}

func processorNs() float64 {
	var used syscall.Rusage
	if syscall.Getrusage(syscall.RUSAGE_SELF, &used) != nil {
		return 0
	}
	return float64(used.Utime.Nano() + used.Stime.Nano())
}

func status(field string) float64 {
	file, err := os.Open("/proc/self/status")
	if err != nil {
		return 0
	}
	defer file.Close()
	lines := bufio.NewScanner(file)
	for lines.Scan() {
		words := strings.Fields(lines.Text())
		if len(words) > 1 && words[0] == field+":" {
			value, _ := strconv.ParseFloat(words[1], 64)
			return value
		}
	}
	return 0
}

var (
	storeLock sync.Mutex
	store     = map[string]string{}
)

// One array of bulk strings.
func request(in *bufio.Reader) ([]string, error) {
	number := func() (int, error) {
		line, err := in.ReadSlice('\n')
		if err != nil {
			return 0, err
		}
		return strconv.Atoi(string(line[1 : len(line)-2]))
	}
	count, err := number()
	if err != nil {
		return nil, err
	}
	words := make([]string, 0, 3)
	for i := 0; i < count; i++ {
		length, err := number()
		if err != nil {
			return nil, err
		}
		text := make([]byte, length+2)
		if _, err = io.ReadFull(in, text); err != nil {
			return nil, err
		}
		words = append(words, string(text[:length]))
	}
	return words, nil
}

func session(client net.Conn) {
	defer client.Close()
	in, out := bufio.NewReader(client), bufio.NewWriter(client)
	for {
		words, err := request(in)
		if err != nil {
			return
		}
		switch {
		case len(words) == 2 && words[0] == "GET":
			storeLock.Lock()
			value, found := store[words[1]]
			storeLock.Unlock()
			if found {
				out.WriteString("$" + strconv.Itoa(len(value)) + "\r\n" + value + "\r\n")
			} else {
				out.WriteString("$-1\r\n")
			}
		case len(words) == 3 && words[0] == "SET":
			storeLock.Lock()
			store[words[1]] = words[2]
			storeLock.Unlock()
			out.WriteString("+OK\r\n")
		default:
			out.WriteString("+PONG\r\n")
		}
		if in.Buffered() == 0 && out.Flush() != nil {
			return
		}
	}
}

func serve() {
	listener, err := net.Listen("tcp", fmt.Sprintf("127.0.0.1:%d", *port))
	if err != nil {
		fmt.Fprintln(os.Stderr, err)
		os.Exit(1)
	}
	for {
		client, err := listener.Accept()
		if err != nil {
			fmt.Fprintln(os.Stderr, err)
			os.Exit(1)
		}
		go session(client)
	}
}

// A round trip between two goroutines, waiting with a time-out or without.
func roundTrips(name string, timed bool) {
	ping, pong := make(chan struct{}, 1), make(chan struct{}, 1)
	await := func(from chan struct{}, timer *time.Timer) {
		if !timed {
			<-from
			return
		}
		timer.Reset(time.Hour)
		select {
		case <-from:
		case <-timer.C:
		}
		timer.Stop()
	}
	go func() {
		timer := time.NewTimer(time.Hour)
		for {
			await(ping, timer)
			pong <- struct{}{}
		}
	}()
	timer := time.NewTimer(time.Hour)
	measure(name, 64, func(n int64) float64 {
		start := time.Now()
		for i := int64(0); i < n; i++ {
			ping <- struct{}{}
			await(pong, timer)
		}
		return float64(time.Since(start))
	})
}

func yields(name string, count int64) {
	for i := int64(1); i < count; i++ {
		go func() {
			for {
				runtime.Gosched()
			}
		}()
	}
	runtime.Gosched()
	measure(name, count*4, func(n int64) float64 {
		laps := (n + count - 1) / count
		start := time.Now()
		for i := int64(0); i < laps; i++ {
			runtime.Gosched()
		}
		return float64(time.Since(start)) * float64(n) / float64(laps*count)
	})
}

func parked(count int64) {
	timed := *caseName == "timed_parked"
	for i := int64(0); i < count; i++ {
		never := make(chan struct{})
		go func() {
			for timed {
				select {
				case <-never:
				case <-time.After(time.Hour):
				}
			}
			<-never
		}()
	}
	time.Sleep(50 * time.Millisecond)
	name := fmt.Sprintf("%s/%d", *caseName, count)
	if *caseName == "yield_parked" {
		yields(name, 2)
	} else {
		roundTrips(name, timed)
	}
}

func main() {
	flag.Parse()
	runtime.GOMAXPROCS(1)
	count := int64(*threads)
	switch *caseName {
	case "yield":
		yields(fmt.Sprintf("yield/%d", count), count)
	case "yield_parked", "timed_parked", "event_parked":
		parked(count)
	case "create":
		measure(fmt.Sprintf("create/%d", count), 64, func(n int64) float64 {
			var ended sync.WaitGroup
			done := int64(0)
			start := time.Now()
			for ; done < n; done += count {
				ended.Add(int(count))
				for i := int64(0); i < count; i++ {
					go ended.Done()
				}
				ended.Wait()
			}
			return float64(time.Since(start)) * float64(n) / float64(done)
		})
	case "serve":
		serve()
	case "message":
		// Each on a kernel thread of its own, or both would share one.
		runtime.GOMAXPROCS(2)
		ping, pong := make(chan struct{}, 1), make(chan struct{}, 1)
		go func() {
			runtime.LockOSThread()
			for {
				<-ping
				pong <- struct{}{}
			}
		}()
		runtime.LockOSThread()
		measure("message/post", 64, func(n int64) float64 {
			start := time.Now()
			for i := int64(0); i < n; i++ {
				ping <- struct{}{}
				<-pong
			}
			return float64(time.Since(start))
		})
	case "post_wait":
		roundTrips("post_wait", false)
	case "lock":
		var mutex sync.Mutex
		measure("lock/1", 64, func(n int64) float64 {
			start := time.Now()
			for i := int64(0); i < n; i++ {
				mutex.Lock()
				mutex.Unlock()
			}
			return float64(time.Since(start))
		})
	case "park":
		never := make(chan struct{})
		park := func(n int64) {
			for i := int64(0); i < n; i++ {
				go func() { <-never }()
			}
			time.Sleep(50 * time.Millisecond)
		}
		park(1000)
		resident, tables := status("VmRSS"), status("VmPTE")
		park(count - 1000)
		more := float64(count - 1000)
		report("park/resident", count, []float64{(status("VmRSS") - resident) / more}, "KiB", "")
		report("park/page_tables", count, []float64{(status("VmPTE") - tables) / more}, "KiB", "")
		report("park/kernel_threads", count, []float64{status("Threads")}, "threads", "")
	default:
		flag.Usage()
		os.Exit(2)
	}
}
